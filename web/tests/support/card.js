/** Cards for the tests of the page: recordings of every kind, made by the example's recorder and cut off. */
import {execFileSync, spawnSync} from "node:child_process";
import {closeSync, cpSync, existsSync, ftruncateSync, mkdirSync, openSync, readFileSync, utimesSync, writeFileSync,
    writeSync} from "node:fs";
import {join} from "node:path";

import {BUILD} from "./files.js";

const H264 = ["testdata/h264_base_640x360_25.h264", "testdata/h264_base_640x360_25.units.tsv", "640", "360"];
const HEVC = ["testdata/h265_cra_2slices_640x360_30.h265", "testdata/h265_cra_2slices_640x360_30.units.tsv", "640", "360"];
const SOUND = ["testdata/aac_lc_48000_2.aac", "testdata/aac_lc_48000_2.units.tsv", "2", "48000"];

/** Records; with a limit of blocks of 512 bytes the recorder is killed there. */
function record(path, sources, blocks = "unlimited") {
    spawnSync("sh", ["-c", `ulimit -c 0; ulimit -f ${blocks}; exec "$@"`, "sh", `${BUILD}/examples/example-record`, path, ...sources]);
    if (!existsSync(path)) throw new Error(`cannot record ${path}`);
}

/** 40 recordings below a directory; gives how many of each kind. */
export function makeCard(directory) {
    let number = 0;
    const next = (folder) => {
        mkdirSync(join(directory, folder), {recursive: true});
        return join(directory, folder, `clip-${String(++number).padStart(4, "0")}.mp4`);
    };
    const made = [], torn = [];
    const add = (count, folder, make) => {
        for (let i = 0; i < count; i++) {
            const path = next(folder);
            make(path, i);
            made.push(path);
        }
    };
    const cutOff = (path, i) => record(path, [...(i % 3 ? H264 : HEVC), ...(i % 4 ? SOUND : [])], 130 + 16 * (i % 12));
    const empty = (path) => (writeFileSync(path, ""), writeFileSync(`${path}.journal`, ""));
    add(8, "2026-11-20", (path, i) => record(path, [...(i % 2 ? HEVC : H264), ...SOUND]));
    add(12, "2026-11-20", (path, i) => (cutOff(path, i), torn.push(path)));
    add(4, "2026-11-21", (path, i) => { // the journal was not removed
        record(path, H264);
        cpSync(`${torn[3 * i + 1]}.journal`, `${path}.journal`);
    });
    add(4, "2026-11-21", (path, i) => { // the journal of another recording
        cutOff(path, i + 4);
        cpSync(`${torn[i % 2 ? 0 : 1]}.journal`, `${path}.journal`);
    });
    add(4, "2026-11-21", empty);
    add(4, "2026-11-22", (path, i) => { // damaged media, or a damaged journal
        cutOff(path, i + 4);
        const name = i % 2 ? path : `${path}.journal`, bytes = readFileSync(name);
        writeFileSync(name, bytes.fill(0xa5, bytes.length >> 3, bytes.length >> 2));
    });
    add(2, "2026-11-22", (path) => writeFileSync(path, "This is no recording."));
    add(2, "2026-11-22", (path, i) => (cutOff(path, i + 5), writeFileSync(`${path}.journal`, "")));
    made.forEach((path, i) => utimesSync(path, 0, Date.UTC(2026, 10, 20, 8) / 1000 + 3723 * i));
    return made;
}

/** What the command makes of a card: {path: {result, ...}}; results lie in `output`. */
export function repairByCommand(card, output, options = []) {
    mkdirSync(output);
    const {stdout} = spawnSync(`${BUILD}/tools/mediafiles`, ["repair", card, "--output", output, "--json", ...options],
        {maxBuffer: 1 << 28});
    return JSON.parse(stdout).files;
}

/** Cases of the power-cut proof, in one folder. */
export function dumpCases(directory, every) {
    mkdirSync(directory);
    execFileSync(`${BUILD}/tests/power_cut_test`, ["testdata", `--dump=${every}`, directory]);
}

/**
 * A recording of 3 GB that was cut off: an hour and a half of H.264, and sound of which the movie header is 10 MB. Only the
 * lengths of the NAL units are there, the rest are holes.
 */
export function makeLarge(path) {
    const VIDEO = 280000, SOUND_SIZE = 300, FRAMES = 10000, EACH = 84; // bytes, bytes, frames, of sound for each of video
    const field = (...numbers) => Buffer.from(new Uint32Array(numbers.map((n) => n >>> 0)).buffer);
    const record_ = (kind, track, payload) => Buffer.concat([Buffer.from([kind, track, payload.length, 0]), payload]);
    const journal = [record_(1, 0, field(0x101, 1920, 1080, 0)), record_(1, 1, field(0x201, 2, 16, 48000)),
        record_(7, 0, Buffer.from("6742c01e", "hex")), record_(8, 0, Buffer.from("68eeff3c", "hex"))];
    const media = openSync(path, "w");
    writeSync(media, Buffer.from("0000001866747970" + "6d70343200000000" + "6d70343269736f6d" + "000000006d646174", "hex"));
    const sample = (track, offset, bytes, time, key) => {
        const seconds = Math.floor(time / 1e9);
        return record_(2, track, field(offset, bytes, seconds, 0, time % 1e9, key));
    };
    let at = 32;
    for (let frame = 0; frame < FRAMES; frame++) {
        const time = frame * 500000000, size = VIDEO + frame % 977 * 4, key = Number(frame % 30 === 0);
        const head = Buffer.alloc(5);
        head.writeUInt32BE(size - 4);
        head[4] = key ? 0x65 : 0x41;
        writeSync(media, head, 0, 5, at);
        journal.push(sample(0, at, size, time, key));
        at += size;
        for (let i = 0; i < EACH; i++) {
            const bytes = SOUND_SIZE + (i * 7 + frame) % 90;
            journal.push(sample(1, at, bytes, time + Math.floor((i + 0.3 * (i % 2)) * 500000000 / EACH), 1));
            at += bytes;
        }
    }
    ftruncateSync(media, at + 100000);
    closeSync(media);
    writeFileSync(`${path}.journal`, Buffer.concat(journal));
    return at + 100000;
}
