/** Chromium with the page in it, as a person would use it. */
import {mkdirSync} from "node:fs";
import {resolve} from "node:path";
import puppeteer from "puppeteer-core";

import {PAGE} from "./files.js";

export const pagePath = `${resolve(PAGE)}/mediafiles-repair.html`;
const SETTLED = 60000; // ms

/** Notes each Blob that the page shows or saves, and that there is no dialog for saving: downloads are looked at. */
function watch() {
    delete window.showSaveFilePicker;
    delete window.showDirectoryPicker;
    window.blobs = [];
    const make = URL.createObjectURL.bind(URL);
    URL.createObjectURL = (blob) => (window.blobs.push(blob), make(blob));
}

export async function openBrowser() {
    return puppeteer.launch({executablePath: "/usr/bin/chromium", headless: true, args: ["--no-sandbox",
        "--autoplay-policy=no-user-gesture-required"]});
}

/** The page from disk; `requests` are those that leave it, `problems` what its console and dialogs say. */
export async function openPage(browser, downloads) {
    const page = await browser.newPage(), requests = [], problems = [];
    page.on("request", (request) => {
        if (!/^(data|blob):/.test(request.url()) && !request.url().endsWith("mediafiles-repair.html")) requests.push(request.url());
    });
    page.on("console", (message) => problems.push(message.text()));
    page.on("pageerror", (error) => problems.push(error.message));
    page.on("dialog", (dialog) => (problems.push(dialog.message()), dialog.dismiss()));
    if (downloads) {
        mkdirSync(downloads, {recursive: true});
        const session = await browser.target().createCDPSession();
        await session.send("Browser.setDownloadBehavior", {behavior: "allow", downloadPath: downloads, eventsEnabled: true});
    }
    await page.evaluateOnNewDocument(watch);
    await page.setViewport({width: 1000, height: 900});
    await page.goto(`file://${pagePath}`);
    return {page, requests, problems};
}

/** Waits until nothing is being looked at or repaired. */
export function settled(page, count) {
    return page.waitForFunction((n) => document.querySelectorAll(".item").length >= n &&
        !document.querySelector("[data-state=looking]") && document.getElementById("work").hidden, {timeout: SETTLED}, count);
}

/** What the list says: {path: {state, what, lost}}. */
export function listOf(page) {
    return page.$$eval(".item", (all) => Object.fromEntries(all.map((item) => [item.querySelector("h3").textContent,
        {state: item.dataset.state, what: item.querySelector(".what").textContent}])));
}

/** Presses a button once nothing is done with many recordings; Stop at once. */
export async function press(page, name) {
    if (name !== "Stop") await page.waitForSelector("#work", {hidden: true});
    const found = await page.$(`::-p-aria(${name})`);
    if (!found) throw new Error(`no button ${name}`);
    await found.focus(); // by the keyboard: what is done meanwhile may move a button away from the mouse
    await page.keyboard.press("Enter");
}
