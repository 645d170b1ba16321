/**
 * The page in Chromium, from disk: what a person does, held against the command; what it costs; that nothing leaves it.
 *
 *     [PAGE=out/web] [BUILD=out/test] [PICTURES=DIR] node --test web/tests/browser.test.mjs
 */
import assert from "node:assert/strict";
import {execFileSync} from "node:child_process";
import {createHash} from "node:crypto";
import {cpSync, linkSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync} from "node:fs";
import {createRequire} from "node:module";
import {tmpdir} from "node:os";
import {basename, join, relative} from "node:path";
import {after, before, test} from "node:test";

import {listOf, openBrowser, openPage, pagePath, press, settled} from "./support/browser.js";
import {dumpCases, makeCard, makeLarge, repairByCommand} from "./support/card.js";
import {BUILD} from "./support/files.js";

const work = mkdtempSync(join(tmpdir(), "mediafiles-")), card = join(work, "DASHCAM");
const axe = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");
const PICTURES = process.env.PICTURES;
/** For the large recording: 256 samples are looked at, and its head and end; processor time in seconds, memory in bytes. */
const MOST = {slices: 258, time: 1.5, memory: 50e6};
const STATES = {repaired: "repaired", salvaged: "repaired", finished: "finished", empty_removed: "empty", not_ours: "not_ours",
    refused: "refused"};
let browser;

before(async () => {
    makeCard(card);
    browser = await openBrowser();
});
after(async () => {
    await browser.close();
    rmSync(work, {recursive: true});
});

const sha256 = (path) => createHash("sha256").update(readFileSync(path)).digest("hex");
const picture = (page, name, options = {}) => PICTURES && page.screenshot({path: join(PICTURES, `${name}.png`), ...options});

async function give(page, path, input = "#folder") {
    await (await page.$(input)).uploadFile(...[path].flat());
}

/** Violations of the rules for accessibility, as text. */
async function violations(page) {
    const session = await page.createCDPSession(); // the page's policy forbids a script of somebody else
    await session.send("Page.setBypassCSP", {enabled: true});
    await session.send("Runtime.evaluate", {expression: axe});
    const found = await page.evaluate(() => window.axe.run());
    return found.violations.flatMap(({id, nodes}) => nodes.map(({html}) => `${id}: ${html}`));
}

/** Of what is drawn and not text, such as edges: [name, ground, contrast] by WCAG 2.2, 1.4.11, from the variables of the style. */
function contrasts(page) {
    return page.evaluate(() => {
        const style = getComputedStyle(document.documentElement), colour = (name) => {
            const probe = document.body.appendChild(document.createElement("i"));
            probe.style.color = style.getPropertyValue(`--${name}`);
            const parts = getComputedStyle(probe).color.match(/\d+/g).map((n) => n / 255);
            probe.remove();
            return parts.map((c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
        };
        const light = (name) => [0.2126, 0.7152, 0.0722].reduce((sum, factor, i) => sum + factor * colour(name)[i], 0);
        const pairs = [["edge", "panel"], ["edge", "ground"], ["accent", "panel"], ["frames", "soft-ground"], ["key", "soft-ground"],
            ["key", "frames"], ["gap", "soft-ground"], ["cut", "panel"]];
        return pairs.map(([a, b]) => [a, b, (Math.max(light(a), light(b)) + 0.05) / (Math.min(light(a), light(b)) + 0.05)]);
    });
}

async function waitForFiles(directory, count) {
    for (let i = 0; i < 300; i++) {
        const done = readdirSync(directory).filter((name) => !name.endsWith(".crdownload") && !name.startsWith("."));
        if (done.length >= count) return done;
        await new Promise((resolve) => setTimeout(resolve, 100));
    }
    throw new Error(`${readdirSync(directory).length} downloads of ${count}`);
}

test("a card: results, downloads and checksums are the command's", async () => {
    const downloads = join(work, "downloads"), output = join(work, "output");
    const {page, requests, problems} = await openPage(browser, downloads);
    await give(page, card);
    await settled(page, 40);
    await picture(page, "list");
    await press(page, "Repair all");
    await page.waitForSelector("[data-state=repairable]", {hidden: true});
    const reports = repairByCommand(card, output, ["--hash"]), list = await listOf(page);
    assert.deepEqual(Object.keys(list).length, reports.length);
    for (const report of reports) {
        const name = `DASHCAM/${relative(card, report.path)}`;
        assert.equal(list[name].state, STATES[report.result], name);
        if (report.result === "empty_removed") // the command would remove it, the page does not
            assert.match(list[name].what, statSync(report.path).size ? /No list of frames.* stays/ : /^Nothing was written.* stays/);
    }
    const made = reports.filter((report) => report.output);
    await press(page, "Save all…");
    await waitForFiles(downloads, made.length);
    for (const {output: path} of made) {
        const saved = join(downloads, basename(path).replace(".mp4", "-recovered.mp4"));
        assert.ok(readFileSync(saved).equals(readFileSync(path)), path);
    }
    await press(page, "Add SHA-256 checksums (reads every recording once)");
    await page.waitForFunction(() => document.getElementById("status").textContent.startsWith("Checksums of 40"));
    const rows = await page.$$eval("tbody", (all) => all.map(({rows: [first, second]}) => [first.cells[0].textContent, second.textContent]));
    const files = Object.fromEntries(rows), bytes = (path) => `${statSync(path).size.toLocaleString("en")} bytes`;
    for (const {output: path, path: read, journal} of reports) {
        const lines = files[`DASHCAM/${relative(card, read)}`].split("\n"), wanted = [read, journal, path].filter(Boolean);
        assert.deepEqual(lines.filter((line) => line.startsWith("SHA")), wanted.map((each) => `SHA-256: ${sha256(each)}`));
        for (const each of wanted) assert.ok(lines.some((line) => line.includes(bytes(each))), `${lines} have no ${bytes(each)}`);
    }
    assert.match(rows[0][1], /changed Nov 2\d, 2026, \d+:\d+:\d+ [AP]M [A-Z]/);
    assert.match(await page.$eval("#report-made", (made) => made.textContent), new RegExp(`page: ${sha256(pagePath)}`));
    assert.ok(made.length >= 15 && new Set(reports.map(({result}) => result)).size >= 5);
    assert.deepEqual([requests, problems], [[], []]);
    await page.close();
});

test("what was repaired plays to its end", async () => {
    const {page, requests, problems} = await openPage(browser);
    await give(page, join(card, "2026-11-20"));
    await settled(page, 20);
    await press(page, "Repair all");
    await page.waitForSelector("[data-state=repairable]", {hidden: true});
    let played = 0;
    for (const item of await page.$$("[data-state=repaired]")) {
        if (!(await item.$eval(".meta", (meta) => meta.textContent)).includes("H.264") || played === 5) continue;
        await (await item.$(".buttons button")).click();
        const video = await item.waitForSelector("video");
        await video.evaluate((v) => new Promise((resolve, reject) => {
            const check = () => v.ended ? resolve() : v.error ? reject(v.error.message) : setTimeout(check, 50);
            check();
        }));
        const [time, length, width] = await video.evaluate((v) => [v.currentTime, v.duration, v.videoWidth]);
        assert.ok(length > 0.3 && Math.abs(time - length) < 0.1 && width === 640, `${time} of ${length}`);
        played++;
    }
    assert.equal(played, 5);
    assert.deepEqual([requests, problems], [[], []]);
    await page.close();
});

async function openDropping() {
    const opened = await openPage(browser), session = await opened.page.createCDPSession();
    const drop = async (...files) => {
        const data = {items: [], files, dragOperationsMask: 1};
        for (const type of ["dragEnter", "dragOver", "drop"])
            await session.send("Input.dispatchDragEvent", {type, x: 500, y: 250, data});
    };
    return {...opened, drop};
}

test("a folder that is dropped, then what was missing", async () => {
    const {page, problems, drop} = await openDropping();
    await drop(join(card, "2026-11-20"));
    await settled(page, 20);
    const path = join(card, "2026-11-21/clip-0025.mp4");
    await drop(path);
    await settled(page, 21);
    const state = async () => (await listOf(page))["clip-0025.mp4"].state;
    assert.equal(await state(), "refused");
    await drop(`${path}.journal`);
    await page.waitForFunction(() => [...document.querySelectorAll("[data-state=repairable] h3")].some((name) => name.textContent === "clip-0025.mp4"));
    assert.deepEqual(problems, []);
    await page.close();
});

const statusOf = (page) => page.$eval("#status", (status) => status.textContent);
const waitForStatus = (page, words) => page.waitForFunction((wanted) =>
    document.getElementById("status").textContent.startsWith(wanted), {}, words);

/** A page with copies of some recordings of the card, repaired. */
async function openRepaired(names, downloads) {
    const directory = mkdtempSync(join(work, "given-"));
    for (const name of names)
        for (const each of [name, `${name}.journal`]) cpSync(join(card, "2026-11-20", each), join(directory, each));
    const opened = await openPage(browser, downloads);
    await give(opened.page, directory);
    await settled(opened.page, names.length);
    await press(opened.page, "Repair all");
    await opened.page.waitForSelector("#work", {hidden: true});
    return {...opened, directory};
}

test("saved is said of what is saved", async () => {
    const {page, directory} = await openRepaired(["clip-0009.mp4"], join(work, "one"));
    const save = async (words) => {
        await page.click(".item .buttons button:nth-child(2)");
        await waitForStatus(page, words);
    };
    await save("Download started: \u2068clip-0009-recovered.mp4\u2069.");
    await page.evaluate(() => { // where the browser can write files
        window.written = 0;
        window.showSaveFilePicker = async ({suggestedName: name}) => ({name, getFile: async () => ({size: window.written}),
            createWritable: async () => new WritableStream({
                write: ({length}) => void (window.written += length),
                close: () => new Promise((resolve) => (window.finish = resolve)),
            })});
    });
    await page.click(".item .buttons button:nth-child(2)");
    await page.waitForFunction(() => window.finish);
    assert.doesNotMatch(await statusOf(page), /^Saved/);
    await page.evaluate(() => window.finish());
    await waitForStatus(page, "Saved: \u2068clip-0009-recovered.mp4\u2069");
    rmSync(join(directory, "clip-0009.mp4"));
    await save(`Not saved: \u2068${basename(directory)}/clip-0009.mp4\u2069. The original can no longer be read`);
    await page.close();
});

/** A folder that the page may write to: {name: size}; fails says which names cannot be written. */
function makeFolder(files, fails) {
    const error = (name) => Object.assign(new Error(`no ${name}`), {name});
    window.folder = files;
    window.showDirectoryPicker = async () => ({
        removeEntry: async (name) => void delete files[name],
        getFileHandle: async (name, {create = false} = {}) => {
            if (files[name] === "folder") throw error("TypeMismatchError");
            if (!(name in files) && !create) throw error("NotFoundError");
            files[name] ??= 0;
            return {getFile: async () => ({size: files[name]}), createWritable: async () => new WritableStream({
                start: () => void (files[name] = 0),
                write: ({length}) => {
                    if (name === fails) throw error("QuotaExceededError");
                    files[name] += length;
                },
            })};
        },
    });
}

test("an original that is gone is said to be gone", async () => {
    const {page, directory} = await openRepaired(["clip-0009.mp4"]), name = (clip) => `${basename(directory)}/${clip}.mp4`;
    const other = ["", ".journal"].map((ending) => `clip-0011.mp4${ending}`);
    for (const each of other) cpSync(join(card, "2026-11-20", each), join(directory, each));
    await give(page, other.map((each) => join(directory, each)), "#files");
    await settled(page, 2);
    for (const clip of ["clip-0009", "clip-0011"]) writeFileSync(join(directory, `${clip}.mp4`), "It is another one.");
    for (const [button, place] of [[`Play: ${name("clip-0009")}`, ".player [role=status]"], ["Look inside: clip-0011.mp4", ".lines p"],
        ["Repair all", "[data-state=failed] .what"]]) {
        await press(page, button);
        await page.waitForFunction((at) => document.querySelector(at)?.textContent.startsWith("The original can no longer be read"), {}, place);
    }
    await waitForStatus(page, "0 recordings were repaired.");
    assert.match(await page.$eval("#troubles", (list) => list.textContent), /^Not repaired: \u2068clip-0011.mp4\u2069. The original/);
    await press(page, "Add SHA-256 checksums (reads every recording once)");
    await waitForStatus(page, "Checksums of 0");
    assert.equal(await page.$$eval("#troubles li", (all) => all.length), 2);
    await page.close();
});

test("save all: no file is overwritten, and one that fails does not stop the others", async () => {
    const names = ["clip-0009.mp4", "clip-0011.mp4", "clip-0012.mp4", "clip-0014.mp4"], made = (name) => name.replace(".", "-recovered.");
    const {page, directory} = await openRepaired(names);
    await page.evaluate(makeFolder, {[made(names[0])]: 7, "clip-0009-recovered-2.mp4": "folder"}, made(names[1]));
    rmSync(join(directory, names[3]));
    await press(page, "Save all…");
    await waitForStatus(page, "2 recordings were saved.");
    const {[made(names[0])]: first, ...others} = await page.evaluate(() => window.folder);
    assert.equal(first, 7);
    assert.deepEqual(Object.keys(others).sort(), ["clip-0009-recovered-2.mp4", "clip-0009-recovered-3.mp4", made(names[2])]);
    assert.ok((await listOf(page))[`${basename(directory)}/${names[0]}`].what.includes("Saved: \u2068clip-0009-recovered-3.mp4\u2069"));
    const troubles = await page.$$eval("#troubles li", (all) => all.map((each) => each.textContent));
    assert.deepEqual(troubles.map((trouble) => /clip-\d+/.exec(trouble)[0]).sort(), ["clip-0011", "clip-0014"]);
    await page.close();
});

test("what takes long is stopped, and goes on", async () => {
    const directory = mkdirOf(join(work, "MANY")), COUNT = 400, path = join(card, "2026-11-20/clip-0009.mp4");
    for (let i = 0; i < COUNT; i++) for (const ending of ["", ".journal"]) linkSync(path + ending, join(directory, `${i}.mp4${ending}`));
    const {page, problems} = await openPage(browser), states = async () => Object.values(await listOf(page)).map(({state}) => state);
    const stopAfter = async (selector, words) => {
        await page.waitForSelector(selector);
        await press(page, "Stop");
        const status = await page.waitForFunction((wanted) => { // what is done, or left
            const {textContent: now} = document.getElementById("status");
            return now.startsWith("Stopped") && now.includes(wanted) && now;
        }, {}, words);
        return Number(/\d+/.exec(await status.jsonValue())[0]);
    };
    await give(page, directory);
    const left = await stopAfter(".item:nth-child(5) .buttons button", "looked at");
    assert.ok(left > 0 && (await states()).length === COUNT - left);
    await press(page, "Look at the others");
    await settled(page, COUNT);
    await press(page, "Repair all");
    const done = await stopAfter("[data-state=repaired]", "repaired");
    assert.ok(done < COUNT && (await states()).filter((state) => state === "repaired").length === done);
    await press(page, "Add SHA-256 checksums (reads every recording once)");
    assert.ok(await stopAfter("#work:not([hidden])", "checksums") < COUNT);
    assert.match(await page.$eval("#summary", (summary) => summary.textContent), new RegExp(`${COUNT - done} to repair · ${done} rep`));
    assert.deepEqual(problems, []);
    await page.close();
});

test("photos, names that hide something, and names that no browser can read", async () => {
    const directory = mkdirOf(join(work, "NAMES")), {page, drop} = await openDropping();
    const put = (name) => ["", ".journal"].forEach((ending) => writeFileSync(
        Buffer.concat([Buffer.from(`${directory}/`), name, Buffer.from(`.mp4${ending}`)]),
        readFileSync(join(card, `2026-11-20/clip-0009.mp4${ending}`))));
    mkdirOf(join(directory, "PHOTOS"));
    writeFileSync(join(directory, "PHOTOS/1.jpg"), "a photo");
    await give(page, join(directory, "PHOTOS"));
    await waitForStatus(page, "The file that you gave is no recording.");
    put(Buffer.from([0x63, 0xff]));
    await drop(directory);
    await page.waitForFunction(() => document.getElementById("troubles").textContent.startsWith("2 files in \u2068NAMES/\u2069 cannot"));
    put(Buffer.from("a\u202e4pm.exe\u0007"));
    await give(page, directory); // dropped, Chromium would keep this name from the page
    await settled(page, 1);
    assert.deepEqual(Object.keys(await listOf(page)), ["NAMES/a\\u{202E}4pm.exe\\u{7}.mp4"]);
    assert.match(await page.$eval("#ignored", (words) => words.textContent), /2 other files .* \u2068NAMES\/PHOTOS\/\u2069/);
    await page.close();
});

test("50 cases of the power-cut proof", async () => {
    const directory = join(work, "cases"), output = join(work, "repaired");
    dumpCases(directory, 1700);
    const names = readdirSync(directory).filter((name) => /\.mp4(\.journal)?$/.test(name));
    assert.ok(names.length >= 100, `${names.length / 2} cases`);
    const made = new Map(repairByCommand(directory, output).filter((report) => report.output)
        .map((report) => [basename(report.path), readFileSync(report.output)]));
    const {page, problems} = await openPage(browser, join(work, "cases-saved"));
    await give(page, names.map((name) => join(directory, name)), "#files");
    await settled(page, names.length / 2);
    await press(page, "Repair all");
    await page.waitForSelector("[data-state=repairable]", {hidden: true});
    assert.equal(Object.values(await listOf(page)).filter(({state}) => state === "repaired").length, made.size);
    await press(page, "Save all…");
    await waitForFiles(join(work, "cases-saved"), made.size);
    for (const [name, bytes] of made)
        assert.ok(readFileSync(join(work, "cases-saved", name.replace(".mp4", "-recovered.mp4"))).equals(bytes), name);
    console.log(`${names.length / 2} cases, ${made.size} repaired`);
    assert.ok(made.size >= 40);
    assert.deepEqual(problems, []);
    await page.close();
});

/** What the processes of pages have taken: {time, memory}, processor time of all, and memory of its own by process. */
async function costs(session) {
    const {processInfo} = await session.send("SystemInfo.getProcessInfo");
    const pages = processInfo.filter(({type}) => type === "renderer");
    const own = (id) => Number(/RssAnon:\s+(\d+)/.exec(readFileSync(`/proc/${id}/status`, "latin1"))[1]) * 1024;
    return {memory: new Map(pages.map(({id}) => [id, own(id)])), time: pages.reduce((sum, {cpuTime}) => sum + cpuTime, 0)};
}

test("3 GB: time, slices and memory", async (t) => {
    const path = join(work, "large.mp4"), bytes = makeLarge(path);
    const own = await openBrowser(); // whose memory is that of this recording alone
    t.after(() => own.close());
    const {page, requests} = await openPage(own);
    const counted = new Promise((resolve) => page.once("workercreated", resolve));
    await give(page, [join(card, "2026-11-20/clip-0001.mp4")], "#files"); // the module is compiled
    await settled(page, 1);
    const worker = await counted;
    await worker.evaluate(() => { // reads of the recording, not of its journal
        self.slices = self.read = 0;
        const read = FileReaderSync.prototype.readAsArrayBuffer, slice = Blob.prototype.slice;
        Blob.prototype.slice = function (...range) {
            return Object.assign(slice.apply(this, range), {of: this.size});
        };
        FileReaderSync.prototype.readAsArrayBuffer = function (blob) {
            if (blob.of > 1e9) self.slices++;
            self.read += blob.size;
            return read.call(this, blob);
        };
    });
    const session = await own.target().createCDPSession(), before = await costs(session);
    let most = 0;
    const timer = setInterval(async () => {
        for (const [id, bytes] of (await costs(session)).memory) most = Math.max(most, bytes - before.memory.get(id));
    }, 15);
    await give(page, [path, `${path}.journal`], "#files");
    await settled(page, 2);
    const looked = await worker.evaluate(() => self.slices);
    const begin = await worker.evaluate(() => (self.slices = self.read = 0, performance.now())), start = await costs(session);
    await press(page, "Repair: large.mp4");
    await page.waitForFunction(() => document.querySelectorAll("[data-state=repaired]").length === 1);
    const [slices, read, end] = await worker.evaluate(() => [self.slices, self.read, performance.now()]);
    const time = (await costs(session)).time - start.time;
    clearInterval(timer);
    await press(page, "Play: large.mp4"); // shows the Blob
    execFileSync("cp", ["--sparse=always", path, `${path}.journal`, mkdirOf(join(work, "in-place"))]);
    execFileSync(`${BUILD}/tools/mediafiles`, ["repair", join(work, "in-place/large.mp4")], {stdio: "pipe"});
    const wanted = join(work, "in-place/large.mp4"), length = statSync(wanted).size;
    const got = await page.evaluate(async (tail) => {
        const blob = window.blobs.at(-1), part = async (from, to) => [...new Uint8Array(await blob.slice(from, to).arrayBuffer())];
        const digest = await crypto.subtle.digest("SHA-256", await blob.slice(blob.size - tail).arrayBuffer());
        return {size: blob.size, head: await part(0, 64), digest: [...new Uint8Array(digest)]};
    }, 16e6);
    const file = (from, count) => execFileSync("tail", ["-c", `+${from + 1}`, wanted], {maxBuffer: 2 ** 30}).subarray(0, count);
    assert.equal(got.size, length);
    assert.deepEqual(got.head, [...execFileSync("head", ["-c", "64", wanted])]);
    assert.equal(Buffer.from(got.digest).toString("hex"), createHash("sha256").update(file(length - 16e6)).digest("hex"));
    const header = length - mediaOf(wanted);
    console.log(`${bytes} bytes, movie header ${header} bytes: looked at with ${looked} slices; repaired in ${Math.round(end - begin)} ms, ` +
        `${time.toFixed(2)} s of the processor, with ${slices} slices, ${read} bytes read, ${most} bytes of memory more at most`);
    assert.ok(header > 9e6 && bytes > 2.8e9);
    assert.ok(slices <= MOST.slices && time < MOST.time && most < MOST.memory);
    assert.deepEqual(requests, []);
});

const mkdirOf = (path) => (mkdirSync(path), path);
const mediaOf = (path) => 24 + execFileSync("head", ["-c", "28", path]).readUInt32BE(24); // the end of mdat

test("accessible: by its names, by keyboard alone, in dark and light, on a phone", async () => {
    const {page, problems} = await openPage(browser);
    for (const scheme of ["light", "dark"]) {
        await page.emulateMediaFeatures([{name: "prefers-color-scheme", value: scheme}, {name: "prefers-reduced-motion", value: "reduce"}]);
        assert.deepEqual(await violations(page), [], scheme);
    }
    await give(page, card);
    await settled(page, 40);
    await waitForStatus(page, "40 recordings · "); // is announced
    const {nodes} = await (await page.createCDPSession()).send("Accessibility.getFullAXTree");
    const names = nodes.filter(({role, ignored}) => role?.value === "heading" && !ignored).map(({name}) => name.value);
    assert.equal(names.filter((name) => name.endsWith(".mp4")).length, 40); // those below the window, too
    const focused = () => page.evaluate(() => document.activeElement.getAttribute("aria-label") ?? document.activeElement.textContent);
    const go = async (name) => { // by the tabulator
        for (let i = 0; i < 300 && !(await focused()).startsWith(name); i++) await page.keyboard.press("Tab");
        assert.ok((await focused()).startsWith(name), `${name} is not reached`);
        await page.keyboard.press("Enter");
    };
    await page.focus("#choose-folder");
    await go("Repair all");
    await page.waitForSelector("[data-state=repairable]", {hidden: true});
    await page.waitForFunction(() => document.activeElement.id === "save-all");
    await go("Play: ");
    await page.waitForSelector("video");
    assert.equal(await page.$$eval("[aria-expanded=true]", (all) => all.length), 1);
    await go("Close: ");
    assert.match(await focused(), /^Play: /);
    assert.deepEqual(await page.$$eval("[aria-expanded=true], video", (all) => all.length), 0);
    await go("Look inside: ");
    await page.waitForSelector(".drawing");
    assert.match(await page.$eval(".drawing", (svg) => svg.getAttribute("aria-label")), /\d+ frames, \d+ of them key frames/);
    await go("Close: ");
    assert.equal(await page.$(".drawing"), null);
    assert.match(await focused(), /^Look inside: /);
    await page.keyboard.press("Enter");
    await page.waitForSelector(".drawing");
    await page.$eval(".drawing", (svg) => svg.closest(".item").scrollIntoView({block: "center"}));
    await picture(page, "inside");
    for (const [scheme, width] of [["light", 1000], ["dark", 390]]) {
        await page.emulateMediaFeatures([{name: "prefers-color-scheme", value: scheme}, {name: "prefers-reduced-motion", value: "reduce"}]);
        await page.setViewport({width, height: 800});
        assert.deepEqual(await violations(page), [], scheme);
        assert.deepEqual((await contrasts(page)).filter(([, , contrast]) => contrast < 3), [], scheme);
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth), `wider than ${width}`);
    }
    await picture(page, "phone");
    assert.deepEqual(problems, []);
    await page.close();
});

test("what is hostile is said, and the page goes on", async () => {
    const directory = mkdirOf(join(work, "hostile")), at = join(work, "plans");
    execFileSync(`${BUILD}/fuzz/write-plans`, ["20000"], {env: {PLANS: at}, stdio: "pipe"});
    const data = readFileSync(at), NONE = 0xffffffff;
    for (let i = 0, offset = 0; offset < data.length; i++) {
        const lengths = [3, 4, 5].map((n) => data.readUInt32LE(offset + 4 * n)).map((n) => n === NONE ? 0 : n);
        const media = offset + 24, journal = media + lengths[0];
        if (i % 271 === 0) {
            writeFileSync(join(directory, `${i}.mp4`), data.subarray(media, journal));
            writeFileSync(join(directory, `${i}.mp4.journal`), data.subarray(journal, journal + lengths[1]));
        }
        offset = journal + lengths[1] + lengths[2];
    }
    const {page, problems} = await openPage(browser);
    await page.evaluate(() => { // the longest time in which the page did not answer
        let last = performance.now();
        window.longest = 0;
        setInterval(() => {
            window.longest = Math.max(window.longest, performance.now() - last);
            last = performance.now();
        }, 10);
    });
    await give(page, directory);
    await settled(page, 100);
    await page.evaluate(() => document.getElementById("repair-all").click());
    await page.waitForSelector("[data-state=repairable]", {hidden: true});
    const states = Object.values(await listOf(page)).map(({state}) => state), longest = await page.evaluate(() => window.longest);
    console.log(`${states.length} hostile recordings; the page did not answer for ${Math.round(longest)} ms at most`);
    assert.ok(states.length >= 100 && !states.includes("failed") && states.includes("repaired"));
    assert.ok(longest < 1000);
    assert.deepEqual(problems, []);
    await page.close();
});
