/** The page: what was dropped or chosen, the list of recordings, repair, saving, report. */
import {Given, filesOfDrop, filesOfInput, folderOf, groups, nameOf} from "./given.js";
import {Helper} from "./helper.js";
import {LICENCES, PAGE, VERSION} from "./inlined.js";
import {TEXTS, duration, exactDate, text} from "./texts.js";
import {drawing} from "./drawing.js";
import {ISOLATES, isolated, plain, shown} from "./names.js";
import {OPTION, fileOf, isRepairable, lengthOf, lostOf, metaOf, stateOf, trackText, whatOf} from "./recording.js";
import {rowOf} from "./report.js";
import {Target, assertReadable, saveAs} from "./saving.js";

const COLUMNS = 400; // of a drawing
const MOST_NAMED = 10; // folders

const element = (id) => document.getElementById(id);
const helper = new Helper();
const given = new Given();
const items = new Map(); // path of the media, or of a journal without it: item
const tally = {}; // state: how many recordings
let queue = Promise.resolve(); // work on many recordings, one after the other
let job = null; // AbortController of that work

/* ---- What was given --------------------------------------------------- */

async function takeDrop(event) {
    event.preventDefault();
    element("drop").classList.remove("over");
    take(await filesOfDrop(event.dataTransfer));
}

function takeInput({target}) {
    take(filesOfInput(target));
    target.value = ""; // so that the same can be chosen again
}

const enqueue = (run) => queue = queue.then(run).catch((error) => tell(String(error)));
const take = (found) => enqueue(() => examineAll(found));

/** Looks at what is new, the newest first. */
async function examineAll({files, failed}) {
    given.add(files);
    const {found, without} = await given.recordings((names) => helper.call("pair", {names}));
    const paths = new Set(found.map(({path}) => path));
    for (const item of items.values()) if (!paths.has(item.path)) remove(item);
    const fresh = found.filter(({path, media, journal}) => items.get(path)?.journal !== journal || items.get(path)?.media !== media);
    fresh.sort((a, b) => (b.media ?? b.journal).lastModified - (a.media ?? a.journal).lastModified);
    const used = found.reduce((sum, {media, journal}) => sum + Boolean(media) + Boolean(journal), 0);
    const list = without.slice(0, MOST_NAMED).map(isolated).join(", ") + (without.length > MOST_NAMED ? ", …" : "");
    show("ignored", [...(given.files.size > used ? [text("ignored", {count: given.files.size - used})] : []),
        ...(without.length ? [text("without", {count: without.length, list})] : [])].join(" "));
    const done = await forAll("looking", fresh, async (each, signal) => {
        const item = add(each);
        if (await examine(item, 0, signal)) return true;
        remove(item);
        return false;
    });
    const left = fresh.length - done;
    element("go-on").hidden = left === 0;
    if (left) element("go-on").focus();
    const unread = [...groups(failed, folderOf)].map(([folder, paths]) => text("unread", {count: paths.length, folder: isolated(folder)}));
    const words = items.size ? element("summary").textContent : text("nothing", {count: given.files.size});
    tell(left ? text("stopped_looking", {count: left}) : words, unread);
}

/**
 * Does run(item, signal, advance) for all of a list, unless it is stopped; how many were done. run gives false when it was
 * cut off. An item has a weight; of a heavy one run says with advance(weight) how far it is.
 */
async function forAll(key, list, run, weightOf = () => 1) {
    const {signal} = job = new AbortController(), whole = list.reduce((sum, item) => sum + weightOf(item), 0) || 1;
    let done = 0, passed = 0;
    const from = document.activeElement;
    busy(true);
    try {
        for (const item of list) {
            let within = passed;
            progress(text(key, {count: done + 1, total: list.length}), passed / whole);
            const isDone = await run(item, signal, (weight) => {
                element("progress").value = (within += weight) / whole;
            });
            if (isDone) done++;
            if (!isDone || signal.aborted) break;
            passed += weightOf(item);
        }
    } finally {
        job = null;
        busy(false);
        if ([element("stop"), document.body, null].includes(document.activeElement)) from.focus(); // Stop is gone
    }
    await writeMade();
    return done;
}

/** false when it was stopped. @param options  of the plan, which the person has chosen */
async function examine(item, options, signal) {
    item.options = options;
    item.blob = item.borrowed = item.sums = item.saved = null;
    const {media, journal} = item;
    if (!media) item.found = {result: "refused", reason: "no_media", tracks: []};
    else item.found = await helper.call("examine", {media, journal, options}, {signal}).catch(() => ({result: "failed", reason: "system", tracks: []}));
    if (signal?.aborted) return false;
    render(item);
    return true;
}

/* ---- The list --------------------------------------------------------- */

function add(each) {
    const old = items.get(each.path);
    const node = old?.node ?? element("item").content.firstElementChild.cloneNode(true);
    const item = {...each, node, row: old?.row ?? document.createElement("tbody"), state: old?.state};
    items.set(each.path, item);
    node.querySelector("h3 bdi").textContent = shown(each.path);
    badge(node, "looking");
    if (!old) {
        element("list").append(node);
        element("rows").append(item.row);
    }
    return item;
}

function remove(item) {
    close(item);
    item.node.remove();
    item.row.remove();
    setState(item, undefined);
    items.delete(item.path);
}

function badge(node, state) {
    const mark = node.querySelector(".badge");
    mark.textContent = text(`badge.${state}`);
    node.dataset.state = state;
}

/** A button whose name says which recording it is for. */
function button(key, item, run, name = "") {
    const made = document.createElement("button");
    made.textContent = text(key);
    made.className = name;
    made.setAttribute("aria-label", text("named", {action: text(key), name: shown(item.path)}));
    made.addEventListener("click", () => run(made));
    return made;
}

function opener(key, item, open, name) {
    const made = button(key, item, () => open(item, made), name);
    made.setAttribute("aria-expanded", "false");
    return made;
}

function render(item) {
    const {node, found} = item;
    close(item);
    setState(item, stateOf(item));
    badge(node, item.state);
    const put = (name, words) => {
        node.querySelector(name).textContent = words;
        node.querySelector(name).hidden = words === "";
    };
    put(".meta", metaOf(item).join(" · "));
    put(".what", whatOf(item));
    put(".lost", lostOf(item));
    const buttons = [];
    if (isRepairable(item)) buttons.push(button("repair", item, () => repair(item).then(() => focus(item)), "main"));
    for (const [name, value] of Object.entries(OPTION)) {
        if (found[name]) buttons.push(button(`option.${name}`, item, () => examine(item, item.options | value).then(() => focus(item))));
    }
    if (fileOf(item)) buttons.push(opener("play", item, play, item.blob ? "main" : ""));
    if (item.blob) buttons.push(button("save", item, (at) => save(item, at)));
    if (found.tracks.length) buttons.push(opener("inside", item, lookInside));
    node.querySelector(".buttons").replaceChildren(...buttons);
    writeRow(item);
}

/** The button that had the focus is gone. */
function focus(item) {
    item.node.querySelector(".buttons button")?.focus();
}

/** One after the other is counted, so that a card with thousands takes no longer for each. */
function setState(item, state) {
    if (item.state) tally[item.state]--;
    if (state) tally[state] = (tally[state] ?? 0) + 1;
    item.state = state;
    count();
}

function count() {
    const {repairable = 0, repaired = 0, finished = 0, ...rest} = tally;
    const numbers = {repairable, repaired, finished, others: Object.values(rest).reduce((sum, n) => sum + n, 0)};
    const all = Object.values(numbers).reduce((sum, n) => sum + n);
    const parts = Object.entries(numbers).filter(([, n]) => n).map(([key, n]) => text(`summary_parts.${key}`, {count: n}));
    show("summary", [text("summary", {count: all}), ...parts].join(" · "));
    element("card").hidden = element("report").hidden = all === 0;
    element("repair-all").hidden = repairable === 0;
    element("save-all").hidden = repaired === 0;
}

/* ---- Repair, play, save ----------------------------------------------- */

async function repair(item, signal) {
    const {media, journal, options} = item;
    try {
        Object.assign(item, {sums: null}, await helper.call("repair", {media, journal, options}, {signal}));
    } catch {
        if (signal?.aborted) return false;
        item.found = {result: "failed", reason: "system", tracks: []};
    }
    render(item);
    return true;
}

async function repairAll() {
    const waiting = [...items.values()].filter((item) => item.found && isRepairable(item));
    const done = await forAll("repairing", waiting, repair);
    const isStopped = done < waiting.length, failed = waiting.slice(0, done).filter((item) => !item.blob);
    tell(text(isStopped ? "stopped_repairing" : "all_repaired", {count: done - failed.length, total: waiting.length}),
        failed.map((item) => text("not_repaired", {name: isolated(item.path), why: whatOf(item)})));
    element(isStopped ? "repair-all" : "save-all").focus();
}

function play(item, at) {
    if (!opens(item, at)) return;
    const player = item.node.querySelector(".player"), video = document.createElement("video"), note = document.createElement("p");
    video.controls = true;
    video.setAttribute("aria-label", text("video_of", {name: shown(item.path)}));
    video.src = URL.createObjectURL(fileOf(item));
    video.addEventListener("error", async () => {
        const codec = item.found.tracks.map((track) => track.codec).join(", ");
        note.textContent = await assertThere(item).then(() => text("cannot_play", {codec}), (error) => error.message);
        video.hidden = true;
    });
    note.setAttribute("role", "status");
    player.replaceChildren(video, note, closer(item, at));
    player.hidden = false;
    video.focus();
    video.play().catch(() => {}); // the person can start it
}

/** Opens below a recording what its button is for; or closes it, where it is open. false then. */
function opens(item, at) {
    const isOpen = at.getAttribute("aria-expanded") === "true";
    close(item);
    item.opener = at;
    at.setAttribute("aria-expanded", String(!isOpen));
    return !isOpen;
}

/** The button that closes what another one has opened, which gets the focus back. */
const closer = (item, at) => button("close", item, () => (close(item), at.focus()));

/** What is open below a recording goes. */
function close(item) {
    item.opener?.setAttribute("aria-expanded", "false");
    for (const part of item.node.querySelectorAll(".player, .lines")) {
        const video = part.querySelector("video");
        if (video) URL.revokeObjectURL(video.src);
        part.replaceChildren();
        part.hidden = true;
    }
}

function newName(path) {
    const name = plain(nameOf(path)), point = name.lastIndexOf(".");
    const [stem, ending] = point > 0 ? [name.slice(0, point), name.slice(point)] : [name, ""];
    return text("file_name", {stem, ending});
}

/** Throws what a person can read unless the card is still there. */
async function assertThere(item) {
    const file = fileOf(item);
    await assertReadable(file, item.borrowed ?? [[0, file.size]]).catch(() => {
        throw new Error(text("gone"));
    });
}

const notSaved = (name, {message: why}) => text("not_saved", {name, why});

/** The name may be another one than what was wanted. */
function noteSaved(item, saved) {
    item.saved = saved;
    if (saved) item.node.querySelector(".what").textContent = `${whatOf(item)} ${text(saved.key, {name: isolated(saved.name)})}`;
    writeRow(item);
}

async function saveFile(name, blob) {
    try {
        const done = await saveAs(name, blob);
        if (done) tell(text(done.key, {name: isolated(done.name)}));
        return done;
    } catch (error) {
        tell(notSaved(name, error));
    }
}

async function save(item) {
    try {
        await assertThere(item);
        noteSaved(item, await saveFile(newName(item.path), item.blob) ?? item.saved);
    } catch (error) {
        tell(notSaved(isolated(item.path), error));
    }
}

async function saveAll() {
    const target = await Target.choose().catch((error) => tell(notSaved(text("recordings"), error)));
    if (target) enqueue(() => saveAllInto(target));
}

/** What cannot be saved does not stop the others. */
async function saveAllInto(target) {
    const made = [...items.values()].filter((item) => item.blob), failed = [];
    const done = await forAll("saving", made, async (item, signal) => {
        try {
            await assertThere(item);
            noteSaved(item, await target.save(newName(item.path), item.blob, signal));
        } catch (error) {
            if (signal.aborted) return false;
            failed.push(notSaved(isolated(item.path), error));
        }
        return true;
    });
    const left = made.length - done, troubles = left ? [text("stopped_saving", {count: left}), ...failed] : failed;
    tell(text(target.isFolder ? "all_saved" : "downloads_started", {count: done - failed.length}), troubles);
}

/* ---- Look inside ------------------------------------------------------ */

/** The drawings, made of what the file holds now. Throws what a person can read. */
async function drawingsOf(item, length, cut) {
    const {media, journal, options, found: {tracks}} = item;
    const file = fileOf(item) ?? (await helper.call("repair", {media, journal, options})).blob;
    const drawn = file ? await helper.call("draw", {file, columns: COLUMNS, length: length * 1.0001 || 1}) : [];
    if (drawn.length !== tracks.length) throw new Error(text("gone"));
    return drawn.flatMap((columns, index) => columns ? [trackDrawing(tracks[index], columns, cut)] : []);
}

async function lookInside(item, at) {
    const lines = item.node.querySelector(".lines"), length = lengthOf(item), cut = item.found.result !== "finished";
    if (!opens(item, at)) return;
    const shut = closer(item, at);
    try {
        const drawings = await drawingsOf(item, length, cut);
        if (at.getAttribute("aria-expanded") !== "true") return; // it was closed meanwhile
        lines.replaceChildren(heading(text("time_line")), ...drawings, axis(length), legend(cut), words(item, length, cut), shut);
    } catch (error) {
        lines.replaceChildren(node("p", error.message), shut);
    }
    lines.hidden = false;
}

function node(name, words, kind = "") {
    const made = document.createElement(name);
    made.textContent = words;
    if (kind) made.className = kind;
    return made;
}

const heading = (words) => node("h4", words);

function trackDrawing(track, columns, cut) {
    const figure = document.createElement("figure");
    figure.append(node("figcaption", `${text(track.video ? "video_track" : "sound_track")} · ${trackText(track)}`),
        drawing(track, columns, cut));
    return figure;
}

function axis(length) {
    const made = node("div", "", "axis");
    made.setAttribute("aria-hidden", "true");
    made.append(...[0, 0.25, 0.5, 0.75, 1].map((part) => node("span", duration(length * part))));
    return made;
}

function legend(cut) {
    const made = node("p", "", "legend");
    made.setAttribute("aria-hidden", "true");
    for (const key of ["frames", "key", "gap", ...(cut ? ["cut"] : [])]) made.append(node("span", text(`legend.${key}`), key));
    return made;
}

/** The drawing for those who do not see it. */
function words(item, length, cut) {
    const list = document.createElement("ul");
    list.className = "words";
    for (const {video, gaps} of item.found.tracks) {
        const kind = text(video ? "video_track" : "sound_track");
        for (const [begin, end] of gaps.slice(0, 20))
            list.append(node("li", `${kind}: ${text("gap", {begin: duration(begin), end: duration(end)})}`));
    }
    if (cut) list.append(node("li", text("cut_at", {time: duration(length)})));
    return list;
}

/* ---- Report ----------------------------------------------------------- */

/** Its part of the table: two rows, the files in the second one. */
function writeRow(item) {
    const [path, ...others] = rowOf(item), cells = others.map((words) => node("td", words)), files = cells.pop();
    const name = Object.assign(node("th", ""), {scope: "rowgroup", rowSpan: 2});
    name.append(node("bdi", path));
    files.colSpan = cells.length;
    const rows = [[name, ...cells], [files]].map((list) => {
        const row = node("tr", "");
        row.append(...list);
        return row;
    });
    item.row.replaceChildren(...rows);
}

/** Of all that was given, what was refused included. */
async function addSums() {
    const weightOf = ({media, journal}) => (media?.size ?? 0) + (journal?.size ?? 0);
    const all = [...items.values()].filter(({found, sums}) => found && !(sums && !sums.failed)), failed = [];
    const done = await forAll("hashing", all, async (item, signal, progress) => {
        const {media, journal, options, blob} = item;
        try {
            item.sums = await helper.call("hash", {media, journal, options, made: blob?.size ?? null}, {progress, signal});
        } catch {
            if (signal.aborted) return false;
            item.sums = {failed: true};
            failed.push(text("not_hashed", {name: isolated(item.path)}));
        }
        writeRow(item);
        return true;
    }, weightOf);
    tell(text(done < all.length ? "stopped_hashing" : "hashed", {count: done - failed.length, total: all.length}), failed);
}

async function saveReport() {
    await writeMade();
    const rows = [...items.values()].filter((item) => item.found).map(rowOf);
    const words = [text("report"), element("report-made").textContent,
        ...rows.map((row) => row.filter(Boolean).join("\n").replaceAll("\n", "\n  "))].join("\n\n").replace(ISOLATES, "");
    saveFile(text("report_name"), new Blob([words + "\n"], {type: "text/plain"}));
}

/** The text of the file that this page is: policy, style and script are what the browser has checked and runs. */
function ownText() {
    const part = (selector) => document.querySelector(selector);
    return PAGE.replace("@POLICY@", () => part("meta[http-equiv]").content)
        .replace("@STYLE@", () => part("style").textContent)
        .replace("@SCRIPT@", () => part("script").textContent);
}

let ownSum = null;

async function writeMade() {
    ownSum ??= await helper.call("sum", {file: new Blob([ownText()])}).catch(() => null);
    show("report-made", text("report_made", {date: exactDate(Date.now()), program: text("program", {version: VERSION}), sum: ownSum ?? "?"}));
}

/* ---- What happens now ------------------------------------------------- */

function show(id, words) {
    element(id).textContent = words;
}

/** What came of it, and what went wrong, one by one. */
function tell(words, troubles = []) {
    show("status", words);
    element("status").classList.toggle("heard", words === element("summary").textContent); // who sees it reads it there
    element("troubles").replaceChildren(...troubles.map((trouble) => node("li", trouble)));
}

function progress(words, part) {
    show("doing", words);
    element("progress").value = part;
}

/** While there is work on many recordings no other can begin. */
function busy(is) {
    element("work").hidden = !is;
    element("table").hidden = is; // a table is laid out anew, as a whole, for each row
    element("list").classList.toggle("busy", is);
    if (is) element("go-on").hidden = true;
    for (const id of ["repair-all", "save-all", "add-sums"]) element(id).setAttribute("aria-disabled", is);
}

function begin() {
    document.documentElement.lang = TEXTS.locale;
    document.title = text("title");
    for (const each of document.querySelectorAll("[data-text]")) each.textContent = text(each.dataset.text);
    show("program", text("program", {version: VERSION}));
    show("licences", LICENCES);
    element("table").setAttribute("aria-label", text("report_table"));
    element("column-names").append(...Object.values(TEXTS.column).map((words) => Object.assign(node("th", words), {scope: "col"})));
    const press = (id, run) => element(id).addEventListener("click", run);
    const work = (id, run) => press(id, () => job ?? run());
    press("choose-files", () => element("files").click());
    press("choose-folder", () => element("folder").click());
    press("stop", () => job?.abort());
    press("go-on", () => take({files: [], failed: []}));
    work("repair-all", () => enqueue(repairAll));
    work("save-all", saveAll);
    work("add-sums", () => enqueue(addSums));
    press("print", () => window.print());
    press("save-report", saveReport);
    element("files").addEventListener("change", takeInput);
    element("folder").addEventListener("change", takeInput);
    addEventListener("dragover", (event) => {
        event.preventDefault();
        element("drop").classList.add("over");
    });
    addEventListener("dragleave", ({relatedTarget}) => relatedTarget ?? element("drop").classList.remove("over"));
    addEventListener("drop", takeDrop);
}

begin();
