/**
 * The module's functions for JavaScript. Files are sources (see wasi.js): nothing here knows where they come from.
 * Each recording gets an instance of its own, so that what is hostile in one reaches no other.
 */
import {Wasi} from "./wasi.js";

/** Options of a plan, as recovery.h has them. */
export const SALVAGE = 2, KEEP_DAMAGED = 4, FORCE = 8;

const HEAD = 32; // bytes of a file before its media
const HASHED = 1 << 20; // bytes at once

/** The answer when the module itself fails: no memory, or a fault in it. */
export const BROKEN = {result: "failed", reason: "system"};

class Instance {
    constructor(module, sources = []) {
        this.wasi = new Wasi(sources);
        const instance = new WebAssembly.Instance(module, {wasi_snapshot_preview1: this.wasi.imports});
        this.functions = instance.exports;
        this.wasi.memory = this.functions.memory;
        this.functions._initialize();
    }

    /** The text at an address that a function gave; null for NULL. */
    text(address) {
        if (address === 0) return null;
        const bytes = new Uint8Array(this.functions.memory.buffer);
        return new TextDecoder().decode(bytes.subarray(address, bytes.indexOf(0, address)));
    }

    /** Calls use(address) with a copy of the bytes in the module's memory. */
    lend(bytes, use) {
        const address = this.functions.malloc(bytes.length || 1);
        new Uint8Array(this.functions.memory.buffer).set(bytes, address);
        const result = use(address);
        this.functions.free(address);
        return result;
    }
}

/**
 * What a recording is and what is kept of it. With `parts`, where something is: what the result consists of, bytes
 * (Uint8Array), zeros (a number of them), or a range of the media ({begin, end}).
 */
export function plan(module, media, journal, options = 0) {
    try {
        const instance = new Instance(module, [media, journal]);
        const answer = instance.text(instance.functions.plan(media.size, journal ? journal.size : -1, options));
        if (!answer) return {...BROKEN};
        const found = JSON.parse(answer);
        if (found.result === "repaired" || found.result === "salvaged") found.parts = partsOf(instance, found);
        return found;
    } catch (error) {
        return {...BROKEN, error};
    }
}

function partsOf({functions, wasi}, found) {
    if (functions.write_head() !== 0) throw new Error("no head");
    const head = wasi.take();
    if (functions.write_tail() !== 0) throw new Error("no tail");
    const media = {begin: HEAD, end: found.media_end - found.added};
    return [...head, media, ...(found.added ? [found.added] : []), ...wasi.take()];
}

/** A finished file, for those who look inside. */
export class Movie {
    /** tracks is null where it is none of ours. */
    constructor(module, file) {
        this.tracks = null;
        try {
            this.instance = new Instance(module, [file]);
            const answer = this.instance.text(this.instance.functions.open_movie(file.size));
            if (answer) this.tracks = JSON.parse(answer).tracks;
        } catch {
            this.instance = null;
        }
    }

    /** The time from begin to end of a track, in seconds: {samples, keys, largest, gap}, each an array of columns. */
    draw(track, begin, end, columns) {
        const address = this.instance.functions.draw(track, begin, end, columns);
        if (address === 0) return null;
        const numbers = new Uint32Array(this.instance.functions.memory.buffer, address, 4 * columns);
        const field = (at) => Uint32Array.from({length: columns}, (_, i) => numbers[4 * i + at]);
        return {samples: field(0), keys: field(1), largest: field(2), gap: field(3)};
    }
}

/** Of the names in a folder: [{media, journal}], each null where there is none. */
export function pair(module, names) {
    const instance = new Instance(module);
    const bytes = new TextEncoder().encode(names.map((name) => name + "\0").join(""));
    const found = instance.lend(bytes, (at) => instance.text(instance.functions.pair(at, bytes.length)));
    const fields = found.split("/");
    return Array.from({length: (fields.length - 1) / 2}, (_, i) => ({media: fields[2 * i] || null,
        journal: fields[2 * i + 1] || null}));
}

/**
 * SHA-256 of what was read and of what was made, in one pass: {read, made}. parts as in a plan, or null for no result.
 * progress(bytes) is called as it goes; what it throws ends the work.
 */
export function hashes(module, media, parts, progress = () => {}) {
    const instance = new Instance(module);
    const add = (which, bytes) => instance.lend(bytes, (at) => instance.functions.hash_add(which, at, bytes.length));
    const kept = parts ? parts.findIndex((part) => part.begin !== undefined) : -1;
    const addParts = (some) => some.forEach((part) => addPart(add, part));
    if (parts) addParts(parts.slice(0, kept));
    for (let at = 0; at < media.size;) {
        const bytes = media.read(at, Math.min(HASHED, media.size - at));
        if (bytes.length === 0) throw new Error("the file has become shorter");
        add(0, bytes);
        if (parts) {
            const {begin, end} = parts[kept];
            add(1, bytes.subarray(Math.max(0, Math.min(bytes.length, begin - at)), Math.max(0, end - at)));
        }
        at += bytes.length;
        progress(bytes.length);
    }
    if (parts) addParts(parts.slice(kept + 1));
    const digits = (which) => instance.text(instance.functions.hash_digits(which));
    return {read: digits(0), made: parts ? digits(1) : null};
}

function addPart(add, part) {
    if (part instanceof Uint8Array) return add(1, part);
    for (let left = part; left > 0; left -= HASHED) add(1, new Uint8Array(Math.min(left, HASHED)));
}
