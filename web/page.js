/** The page: what was dropped or chosen, the list of recordings, repair, saving, report. */
import {Given, filesOfDrop, filesOfInput, folderOf, groups, nameOf} from "./given.js";
import {Helper} from "./helper.js";
import {LICENCES, VERSION} from "./inlined.js";
import {TEXTS, date, duration, number, size, text} from "./texts.js";
import {drawing} from "./drawing.js";
import {isolated, plain, shown} from "./names.js";
import {Target, assertReadable, saveAs} from "./saving.js";

const COLUMNS = 400; // of a drawing
const OPTION = {can_salvage: 2, can_keep_damaged: 4, can_force: 8}; // as recovery.h has them

const element = (id) => document.getElementById(id);
const helper = new Helper();
const given = new Given();
const items = new Map(); // path of the media, or of a journal without it: item
let queue = Promise.resolve(); // what was given is looked at one after the other

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

function take(found) {
    queue = queue.then(() => examineAll(found)).catch((error) => tell(String(error)));
}

/** Looks at what is new, the newest first. */
async function examineAll({files, failed}) {
    given.add(files);
    const found = await given.recordings((names) => helper.call("pair", {names}));
    const paths = new Set(found.map(({path}) => path));
    for (const item of items.values()) if (!paths.has(item.path)) remove(item);
    const fresh = found.filter(({path, media, journal}) => items.get(path)?.journal !== journal || items.get(path)?.media !== media);
    fresh.sort((a, b) => (b.media ?? b.journal).lastModified - (a.media ?? a.journal).lastModified);
    const used = found.reduce((sum, {media, journal}) => sum + Boolean(media) + Boolean(journal), 0);
    show("ignored", given.files.size > used ? text("ignored", {count: given.files.size - used}) : "");
    for (const [index, each] of fresh.entries()) {
        working("looking", index, fresh.length);
        await examine(add(each), 0);
    }
    working(null);
    const unread = [...groups(failed, folderOf)].map(([folder, list]) => text("unread", {count: list.length, folder: isolated(folder)}));
    tell(items.size ? "" : text("nothing"), unread);
}

/** @param options  of the plan, which the person has chosen */
async function examine(item, options) {
    item.options = options;
    item.blob = item.borrowed = null;
    const {media, journal} = item;
    if (!media) item.found = {result: "refused", reason: "no_media", tracks: []};
    else item.found = await helper.call("examine", {media, journal, options}).catch(() => ({result: "failed", reason: "system", tracks: []}));
    render(item);
}

/* ---- A recording ------------------------------------------------------ */

const isRepairable = (item) => ["repaired", "salvaged"].includes(item.found.result) && !item.blob;
const fileOf = (item) => item.blob ?? (item.found.result === "finished" ? item.media : null);
const lengthOf = (item) => Math.max(0, ...item.found.tracks.map((track) => track.duration));

function stateOf(item) {
    if (item.blob) return "repaired";
    const states = {repaired: "repairable", salvaged: "repairable", finished: "finished", empty_removed: "empty"};
    return states[item.found.result] ?? item.found.result;
}

function whatOf(item) {
    const {result, reason, foreign_journal: foreign} = item.found, values = {duration: duration(lengthOf(item))};
    if (item.blob) return text("result.repaired", values);
    if (result === "repaired") return text("result.repairable", values);
    if (result === "salvaged") return text("result.salvageable", values);
    if (item.media) values.size = size(item.media.size);
    if (result === "empty_removed") return text(item.media.size ? "result.empty" : "result.nothing", values);
    if (result === "refused") return text(`reason.${reason}`, {...values, journal: isolated(`${nameOf(item.path)}.journal`)});
    return text(`result.${result}`) + (foreign ? ` ${text("result.foreign")}` : "");
}

function leftOutOf({video, sound, video_seconds: seen, sound_seconds: heard, is_beyond: beyond} = {}) {
    if (!video && !sound) return [];
    const values = {count: video || sound, duration: duration(video ? seen : heard)};
    return [text(`lost.${beyond ? "beyond" : "left_out"}_${video ? "video" : "sound"}`, values)];
}

function lostOf(item) {
    const found = item.found, lost = [];
    if (!["repaired", "salvaged"].includes(found.result)) return "";
    if (found.cut) lost.push(text("lost.cut", {size: size(found.cut)}));
    if (found.added) lost.push(text("lost.added", {size: size(found.added)}));
    lost.push(...leftOutOf(found.left_out));
    if (found.bad_bytes) lost.push(text("lost.bad", {size: size(found.bad_bytes)}));
    if (found.journal_lost) lost.push(text("lost.journal", {size: size(found.journal_lost)}));
    return lost.join(" ") || text(found.samples ? "lost.nothing" : "lost.size_alone");
}

function trackText({video, codec, width, height, rate, channels}) {
    if (video) return text("track.video", {codec, width, height});
    const sound = channels === 2 ? text("stereo") : text("channels", {count: channels});
    return text("track.sound", {codec, rate: number(rate / 1000, 1), channels: sound});
}

function metaOf(item) {
    const length = lengthOf(item), file = item.media ?? item.journal;
    return [date(file.lastModified), ...(length ? [duration(length)] : []), size(file.size), ...item.found.tracks.map(trackText)];
}

/* ---- The list --------------------------------------------------------- */

function add(each) {
    const old = items.get(each.path);
    const node = old?.node ?? element("item").content.firstElementChild.cloneNode(true);
    const item = {...each, node};
    items.set(each.path, item);
    node.querySelector("h3 bdi").textContent = shown(each.path);
    badge(node, "looking");
    if (!old) element("list").append(node);
    return item;
}

function remove(item) {
    close(item);
    item.node.remove();
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

function render(item) {
    const {node, found} = item;
    close(item);
    badge(node, stateOf(item));
    const put = (name, words) => {
        node.querySelector(name).textContent = words;
        node.querySelector(name).hidden = words === "";
    };
    put(".meta", metaOf(item).join(" · "));
    put(".what", whatOf(item) + (found.protected ? ` ${text("protected")}` : ""));
    put(".lost", lostOf(item));
    const buttons = [];
    if (isRepairable(item)) buttons.push(button("repair", item, () => repair(item).then(() => focus(item)), "main"));
    for (const [name, value] of Object.entries(OPTION)) {
        if (found[name]) buttons.push(button(`option.${name}`, item, () => examine(item, item.options | value).then(() => focus(item))));
    }
    if (fileOf(item)) buttons.push(button("play", item, () => play(item), item.blob ? "main" : ""));
    if (item.blob) buttons.push(button("save", item, (at) => save(item, at)));
    if (found.tracks.length) buttons.push(button("inside", item, (at) => lookInside(item, at)));
    node.querySelector(".buttons").replaceChildren(...buttons);
    count();
}

/** The button that had the focus is gone. */
function focus(item) {
    item.node.querySelector(".buttons button")?.focus();
}

function count() {
    const all = [...items.values()].filter((item) => item.found), states = all.map(stateOf);
    const of = (...some) => states.filter((state) => some.includes(state)).length;
    const numbers = {repairable: of("repairable"), repaired: of("repaired"), finished: of("finished")};
    numbers.others = states.length - numbers.repairable - numbers.repaired - numbers.finished;
    const parts = Object.entries(numbers).filter(([, n]) => n).map(([key, n]) => text(`summary_parts.${key}`, {count: n}));
    show("summary", [text("summary", {count: all.length}), ...parts].join(" · "));
    element("card").hidden = all.length === 0;
    element("repair-all").hidden = numbers.repairable === 0;
    element("save-all").hidden = numbers.repaired === 0;
    element("report").hidden = numbers.repaired === 0;
    if (numbers.repaired) writeReport();
}

/* ---- Repair, play, save ----------------------------------------------- */

async function repair(item) {
    const {media, journal, options} = item;
    try {
        Object.assign(item, await helper.call("repair", {media, journal, options}));
    } catch {
        item.found = {result: "failed", reason: "system", tracks: []};
    }
    render(item);
}

async function repairAll() {
    const waiting = [...items.values()].filter((item) => item.found && isRepairable(item));
    for (const [index, item] of waiting.entries()) {
        working("repairing", index, waiting.length);
        await repair(item);
    }
    working(null);
    element("save-all").focus();
}

function play(item) {
    const player = item.node.querySelector(".player"), video = document.createElement("video");
    close(item, ".lines");
    const note = document.createElement("p");
    video.controls = true;
    video.setAttribute("aria-label", text("video_of", {name: shown(item.path)}));
    video.src = URL.createObjectURL(fileOf(item));
    video.addEventListener("error", () => {
        note.textContent = text("cannot_play", {codec: item.found.tracks.map(({codec}) => codec).join(", ")});
        video.hidden = true;
    });
    note.setAttribute("role", "status");
    player.replaceChildren(video, note, button("close", item, () => close(item)));
    player.hidden = false;
    video.focus();
    video.play().catch(() => {}); // the person can start it
}

/** What is open below a recording goes. */
function close(item, which = ".player, .lines") {
    for (const part of item.node.querySelectorAll(which)) {
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

async function saveFile(name, blob) {
    try {
        const done = await saveAs(name, blob);
        if (done) tell(text(done.key, done));
        return done?.name;
    } catch (error) {
        tell(notSaved(name, error));
    }
}

async function save(item) {
    try {
        await assertThere(item);
        item.saved = await saveFile(newName(item.path), item.blob) ?? item.saved;
    } catch (error) {
        tell(notSaved(isolated(item.path), error));
    }
}

/** What cannot be saved does not stop the others. */
async function saveAll() {
    const made = [...items.values()].filter((item) => item.blob), failed = [];
    const target = await Target.choose().catch((error) => tell(notSaved("", error)));
    if (!target) return;
    for (const [index, item] of made.entries()) {
        working("saving", index, made.length);
        try {
            await assertThere(item);
            item.saved = await target.save(newName(item.path), item.blob);
        } catch (error) {
            failed.push(notSaved(isolated(item.path), error));
        }
    }
    working(null);
    tell(text(target.isFolder ? "all_saved" : "downloads_started", {count: made.length - failed.length}), failed);
}

/* ---- Look inside ------------------------------------------------------ */

async function lookInside(item, at) {
    const lines = item.node.querySelector(".lines"), length = lengthOf(item), {tracks} = item.found;
    close(item, ".player");
    const {media, journal, options} = item;
    const file = fileOf(item) ?? await helper.call("repair", {media, journal, options}).then(({blob}) => blob, () => new Blob());
    const drawn = await helper.call("draw", {file, columns: COLUMNS, length: length * 1.0001 || 1}).catch(() => []);
    const cut = item.found.result !== "finished";
    lines.replaceChildren(heading(text("time_line")),
        ...drawn.flatMap((columns, index) => columns ? [trackDrawing(tracks[index], columns, cut)] : []), axis(length), legend(cut),
        words(item, length, cut), button("close", item, () => (close(item), at.focus())));
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

/** The rows of the report: name, what it was, kept, lost, sums. */
function rows() {
    return [...items.values()].filter((item) => item.found).map((item) => {
        const kept = item.blob || item.found.result === "finished" ? metaOf(item).slice(1).join(", ") : "";
        const sums = [...(item.sums?.read ? [text("read_sum", {sum: item.sums.read})] : []),
            ...(item.sums?.made ? [text("made_sum", {sum: item.sums.made})] : [])];
        return [shown(item.path), whatOf(item), kept, lostOf(item), sums.join("\n")];
    });
}

function writeReport() {
    const table = element("report").querySelector("table");
    const cell = (kind, words) => node(kind, words);
    table.tHead.rows[0].replaceChildren(...Object.values(TEXTS.column).map((words) => Object.assign(cell("th", words), {scope: "col"})));
    table.tBodies[0].replaceChildren(...rows().map((row) => {
        const made = document.createElement("tr");
        made.append(...row.map((words) => cell("td", words)));
        return made;
    }));
    show("report-made", text("report_made", {date: date(Date.now()), program: text("program", {version: VERSION})}));
}

async function addSums() {
    const all = [...items.values()].filter((item) => fileOf(item) && !item.sums);
    const total = all.reduce((sum, item) => sum + item.media.size, 0) || 1;
    let done = 0;
    element("stop").hidden = false;
    for (const item of all) {
        const {media, journal, options} = item;
        try {
            item.sums = await helper.call("hash", {media, journal, options}, (bytes) => {
                done += bytes;
                progress(text("hashing", {percent: Math.floor(100 * done / total)}), done / total);
            });
        } catch {
            break; // it was stopped, or the card is gone
        }
    }
    element("stop").hidden = true;
    working(null);
    writeReport();
}

function saveReport() {
    const lines = rows().map((row) => row.filter(Boolean).join("\n  ").replaceAll("\n", "\n  "));
    const words = [text("report"), element("report-made").textContent, ...lines].join("\n\n");
    saveFile(text("report_name"), new Blob([words + "\n"], {type: "text/plain"}));
}

/* ---- What happens now ------------------------------------------------- */

function show(id, words) {
    element(id).textContent = words;
}

/** What came of it, and what went wrong, one by one. */
function tell(words, troubles = []) {
    show("status", words);
    element("troubles").replaceChildren(...troubles.map((trouble) => node("li", trouble)));
}

function progress(words, part) {
    tell(words);
    element("progress").hidden = part === null;
    if (part !== null) element("progress").value = part;
}

/** At so many of a total; null: nothing any more. */
function working(key, index, total) {
    if (key) progress(text(key, {count: index + 1, total}), index / total);
    else progress("", null);
}

function begin() {
    document.documentElement.lang = TEXTS.locale;
    document.title = text("title");
    for (const each of document.querySelectorAll("[data-text]")) each.textContent = text(each.dataset.text);
    show("program", text("program", {version: VERSION}));
    show("licences", LICENCES);
    element("table").setAttribute("aria-label", text("report_table"));
    element("progress").setAttribute("aria-labelledby", "status");
    const press = (id, run) => element(id).addEventListener("click", run);
    press("choose-files", () => element("files").click());
    press("choose-folder", () => element("folder").click());
    press("repair-all", repairAll);
    press("save-all", saveAll);
    press("add-sums", addSums);
    press("stop", () => helper.stop());
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
