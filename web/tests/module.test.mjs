/**
 * The module and its WASI functions, held against the command, and against what the plan makes of hostile input.
 *
 *     [PAGE=out/web] [BUILD=out/test] [EVERY=200] [HOSTILE_EVERY=10] node --test web/tests/module.test.mjs
 */
import assert from "node:assert/strict";
import {execFileSync, spawnSync} from "node:child_process";
import {createHash} from "node:crypto";
import {mkdirSync, mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync} from "node:fs";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {after, test} from "node:test";

import {Given} from "../given.js";
import {FORCE, Joined, KEEP_DAMAGED, Repair, SALVAGE} from "../repair.js";
import {BUILD, ByteSource, FileSource, assemble, loadModule} from "./support/files.js";

const EVERY = Number(process.env.EVERY ?? 200), HOSTILE_EVERY = Number(process.env.HOSTILE_EVERY ?? 10);
const repair = new Repair(loadModule());
const work = mkdtempSync(join(tmpdir(), "mediafiles-"));
after(() => rmSync(work, {recursive: true}));

const OPTIONS = [["as it is", 0], ["--salvage", SALVAGE], ["--keep-damaged", KEEP_DAMAGED], ["--force", FORCE]];
const LONGEST = 1e6; // microseconds of the processor, for one recording

function madeByPage(path, options) {
    const media = new FileSource(path), journal = new FileSource(`${path}.journal`);
    const found = repair.plan(media, journal, options);
    const file = found.parts ? assemble(found.parts, media) : null;
    media.close();
    journal.close();
    return {found, file};
}

let largest = {length: 0}; // of the results

/** Every nth case of the power-cut proof; a part of them with a hole in the media. */
function makeCard() {
    const card = join(work, "card");
    mkdirSync(card);
    execFileSync(`${BUILD}/tests/power_cut_test`, ["testdata", `--dump=${EVERY}`, card]);
    const names = readdirSync(card).filter((name) => name.endsWith(".mp4"));
    names.filter((_, i) => i % 5 === 0).forEach((name) => {
        const path = join(card, name), bytes = readFileSync(path);
        writeFileSync(path, bytes.fill(0, bytes.length >> 1, (bytes.length >> 1) + Math.min(64, bytes.length >> 2)));
    });
    return {card, names};
}

test("power cuts: the command's results, byte for byte", () => {
    const {card, names} = makeCard();
    assert.ok(names.length >= 500, `${names.length} cases`);
    const counts = {};
    for (const [option, value] of OPTIONS) {
        const output = join(work, `output-${value}`);
        mkdirSync(output);
        const words = ["repair", card, "--output", output, "--json", ...(value ? [option] : [])];
        const {stdout} = spawnSync(`${BUILD}/tools/mediafiles`, words, {maxBuffer: 1 << 28});
        const reports = JSON.parse(stdout).files.filter((report) => report.path.endsWith(".mp4"));
        assert.equal(reports.length, names.length);
        for (const report of reports) {
            const {found, file} = madeByPage(report.path, value);
            assert.equal(found.result, report.result, report.path);
            counts[found.result] = (counts[found.result] ?? 0) + 1;
            assert.equal(Boolean(file), Boolean(report.output));
            if (file && found.result === "repaired" && file.length > largest.length) largest = {path: report.path, length: file.length};
            if (file) assert.ok(file.equals(readFileSync(report.output)), `${report.path} ${option}`);
        }
    }
    console.log(`${names.length} cases, ${OPTIONS.length} options:`, counts);
    for (const result of ["repaired", "salvaged", "finished", "empty_removed", "refused"]) assert.ok(counts[result] > 0, result);
});

/** {options, result, reason, media, journal, made} of each input that write-plans has written. */
function* hostileInputs(path) {
    const data = readFileSync(path), NONE = 0xffffffff;
    for (let at = 0; at < data.length;) {
        const [options, result, reason, ...lengths] = Array.from({length: 6}, (_, i) => data.readUInt32LE(at + 4 * i));
        at += 24;
        const [media, journal, made] = lengths.map((length) => length === NONE ? null : data.subarray(at, at += length));
        yield {options, result, reason, media, journal, made};
    }
}

test("hostile journals and media: what the plan makes of them elsewhere, and soon", () => {
    const path = join(work, "plans");
    execFileSync(`${BUILD}/fuzz/write-plans`, ["20000"], {env: {PLANS: path}, stdio: "pipe"});
    const results = ["", "repaired", "salvaged", "finished", "empty_removed", "not_ours", "refused"];
    let count = 0, longest = 0, made = 0;
    for (const input of hostileInputs(path)) {
        if (count++ % HOSTILE_EVERY !== 0) continue;
        const media = new ByteSource(input.media), journal = input.journal && new ByteSource(input.journal);
        const begin = process.cpuUsage().user;
        const found = repair.plan(media, journal, input.options);
        longest = Math.max(longest, process.cpuUsage().user - begin);
        assert.equal(found.result, results[input.result], `input ${count}`);
        if (!found.parts || !input.made) continue;
        const file = assemble(found.parts, media);
        assert.ok(file.equals(input.made), `input ${count}`);
        repair.draw(new ByteSource(file), 0, 100, 100);
        made++;
    }
    console.log(`1 in ${HOSTILE_EVERY} of ${count} inputs, ${made} files made, the longest took ${longest / 1000} ms`);
    assert.ok(count > 20000 && made > 3000 / HOSTILE_EVERY && longest < LONGEST);
});

/** The recording of the largest result, as sources. */
function recording() {
    return {media: new ByteSource(readFileSync(largest.path)), journal: new ByteSource(readFileSync(`${largest.path}.journal`))};
}

test("a file that cannot be read to its end is kept up to there", () => {
    const {media, journal} = recording();
    const {parts} = repair.plan(media, journal), end = parts[1].end - 1000;
    media.read = (offset, count) => { // beyond the end nothing can be read
        if (offset + count > end) throw new Error("cannot be read");
        return media.bytes.subarray(offset, offset + count);
    };
    const found = repair.plan(media, journal);
    assert.ok(found.parts[1].end <= end && found.parts[1].end < parts[1].end);
});

test("what the journal names beyond the end of the media", () => {
    const {media, journal} = recording(), all = repair.plan(media, journal);
    const lengths = (found, bytes) => repair.tracks(new Joined(found.parts, bytes)).map(({duration, samples}) => [duration, samples]);
    const [[length, video], [, sound]] = lengths(all, media);
    for (const part of [0.3, 0.6, 1]) {
        const cut = new ByteSource(media.bytes.subarray(0, media.size * part)), found = repair.plan(cut, journal);
        const {left_out: lost} = found, [[rest, frames], [, sounds]] = lengths(found, cut);
        assert.deepEqual([lost.video, lost.sound, lost.is_beyond], [video - frames, sound - sounds, part < 1]);
        assert.ok(Math.abs(length - rest - lost.video_seconds) < 0.001, `${lost.video_seconds} s at ${part}`);
    }
});

test("hashes are those of what was read and made", () => {
    const {media, journal} = recording();
    const sha256 = (bytes) => createHash("sha256").update(bytes).digest("hex");
    const {parts} = repair.plan(media, journal);
    for (const added of [[], [3000000]]) { // zeros of a sample that was cut
        const all = [parts[0], parts[1], ...added, ...parts.slice(2)];
        const wanted = {read: sha256(media.bytes), made: sha256(assemble(all, media))};
        assert.deepEqual(repair.hashes(media, all), wanted);
    }
    assert.deepEqual(repair.hashes(media, null), {read: sha256(media.bytes), made: null});
});

test("names: which journal belongs to which file", () => {
    const names = ["b.MP4", "b.mp4.journal", "a.mp4", "a.mp4.JOURNAL", "notes.txt", "lost.mp4.journal", "x.mov", "x.mov.journal",
        "two\nlines.mp4", "\u00e4.mp4", "\ud800.mp4", "\ud801.mp4", "\ud801.mp4.journal"];
    assert.deepEqual(repair.pair(names).map(({media, journal}) => [media, journal]), [["a.mp4", "a.mp4.JOURNAL"],
        ["b.MP4", "b.mp4.journal"], ["two\nlines.mp4", null], ["x.mov", "x.mov.journal"], ["\u00e4.mp4", null],
        ["\ud800.mp4", null], ["\ud801.mp4", "\ud801.mp4.journal"], [null, "lost.mp4.journal"]]);
    assert.deepEqual(repair.pair([]), []);
});

test("folders of one name are kept apart unless they are the same", () => {
    const file = (path, size = 1) => [path, {size, lastModified: 7}];
    const cases = [ // what is given, one after the other; the paths then
        ["the same card again", [[file("C/a.mp4")], [file("C/a.mp4"), file("C/b.mp4")]], ["C/a.mp4", "C/b.mp4"]],
        ["another card", [[file("C/a.mp4")], [file("C/a.mp4", 2), file("C/b.mp4")]], ["C (2)/a.mp4", "C (2)/b.mp4", "C/a.mp4"]],
        ["nothing in common", [[file("C/a.mp4")], [file("C/b.mp4")]], ["C (2)/b.mp4", "C/a.mp4"]],
        ["two at once", [[file("C/a.mp4"), file("C/a.mp4")]], ["C (2)/a.mp4", "C/a.mp4"]],
        ["single files", [[file("a.mp4")], [file("a.mp4.journal")], [file("a.mp4", 2)]], ["a.mp4", "a.mp4.journal", "files (2)/a.mp4"]],
    ];
    for (const [what, sets, paths] of cases) {
        const given = new Given();
        for (const set of sets) given.add(set);
        assert.deepEqual([...given.files.keys()].sort(), paths, what);
    }
});

test("the time line has every sample in its place", () => {
    const {media, journal} = recording();
    const found = repair.plan(media, journal), file = new ByteSource(assemble(found.parts, media));
    const tracks = repair.tracks(file);
    assert.deepEqual(repair.tracks(new Joined(found.parts, media)), tracks);
    assert.deepEqual(tracks.map(({codec, width, rate}) => [codec, width, rate]), [["H.264", 640, undefined],
        ["AAC", undefined, 48000]]);
    assert.equal(tracks[0].samples + tracks[1].samples, found.samples);
    const sum = (numbers) => numbers.reduce((a, b) => a + b), length = Math.max(...tracks.map((track) => track.duration));
    for (const [index, all] of repair.draw(file, 0, length + 0.001, 7).entries())
        assert.deepEqual([sum(all.samples), sum(all.keys)], [tracks[index].samples, tracks[index].keys]);
    for (const none of repair.draw(file, -2, -1, 5)) assert.equal(none.samples.find(Boolean), undefined);
    assert.deepEqual(repair.tracks(media), []); // it is not finished
});
