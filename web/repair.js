/**
 * The module's functions for JavaScript. Files are sources (see wasi.js): nothing here knows where they come from.
 */
import {wellFormed} from "./names.js";
import {Wasi} from "./wasi.js";

/** Options of a plan, as recovery.h has them. */
export const SALVAGE = 2, KEEP_DAMAGED = 4, FORCE = 8;

const HEAD = 32; // bytes of a file before its media
const HASHED = 1 << 20; // bytes at once

/** The answer when the module itself fails: no memory, or a fault in it. */
export const BROKEN = {result: "failed", reason: "system"};

/** What the parts of a plan amount to, as a source. */
export class Joined {
    constructor(parts, media) {
        this.media = media;
        this.parts = [];
        this.size = 0;
        for (const part of parts) {
            const length = typeof part === "number" ? part : part.length ?? part.end - part.begin;
            this.parts.push({part, at: this.size, length});
            this.size += length;
        }
    }

    read(offset, count) {
        const bytes = new Uint8Array(Math.max(0, Math.min(count, this.size - offset)));
        for (const {part, at, length} of this.parts) {
            const begin = Math.max(at, offset), end = Math.min(at + length, offset + bytes.length);
            if (begin >= end || typeof part === "number") continue;
            bytes.set(part.length === undefined ? this.media.read(part.begin + begin - at, end - begin)
                : part.subarray(begin - at, end - at), begin - offset);
        }
        return bytes;
    }
}

/**
 * One recording at a time. The module's memory is used again for the next one, so that a card takes what its largest
 * recording takes; when the module fails, the next one gets a new instance.
 */
export class Repair {
    /** print(bytes) gets what the core prints: a line for each track of a plan. */
    constructor(module, print = () => {}) {
        this.module = module;
        this.print = print;
    }

    /** The module's functions, with these files open. */
    open(...sources) {
        if (!this.functions) {
            this.wasi = new Wasi(this.print);
            const instance = new WebAssembly.Instance(this.module, {wasi_snapshot_preview1: this.wasi.imports});
            this.wasi.memory = instance.exports.memory;
            instance.exports._initialize();
            this.functions = instance.exports;
        }
        this.wasi.open(sources);
        return this.functions;
    }

    /** Does work, which may end in a fault of the module. */
    guarded(work, otherwise) {
        try {
            return work();
        } catch (error) {
            this.functions = null;
            return {...otherwise, error};
        }
    }

    /**
     * What a recording is and what is kept of it. With `parts`, where something is: what the result consists of, bytes
     * (Uint8Array), zeros (a number of them), or a range of the media ({begin, end}).
     */
    plan(media, journal, options = 0) {
        return this.guarded(() => {
            const functions = this.open(media, journal);
            const answer = this.text(functions.plan(media.size, journal ? journal.size : -1, options));
            journal?.forget?.(); // nothing more is read of it
            if (!answer) return {...BROKEN};
            const found = JSON.parse(answer);
            if (found.result === "repaired" || found.result === "salvaged") found.parts = this.partsOf(found);
            functions.close_all();
            return found;
        }, BROKEN);
    }

    partsOf(found) {
        if (this.functions.write_head() !== 0) throw new Error("no head");
        const head = this.wasi.take();
        if (this.functions.write_tail() !== 0) throw new Error("no tail");
        const media = {begin: HEAD, end: found.media_end - found.added};
        return [...head, media, ...(found.added ? [found.added] : []), ...this.wasi.take()];
    }

    /** The tracks of a finished file; none where it is none of ours. */
    tracks(file) {
        return this.guarded(() => {
            const answer = this.text(this.open(file).open_movie(file.size));
            return {tracks: answer ? JSON.parse(answer).tracks : []};
        }, {tracks: []}).tracks;
    }

    /**
     * Of each track of a finished file the time from begin to end, in seconds: {samples, keys, largest, gap}, each an array of
     * columns.
     */
    draw(file, begin, end, columns) {
        const drawn = this.tracks(file).map((_, track) => {
            const address = this.functions.draw(track, begin, end, columns);
            if (address === 0) return null;
            const numbers = new Uint32Array(this.functions.memory.buffer, address, 4 * columns);
            const field = (at) => Uint32Array.from({length: columns}, (_, i) => numbers[4 * i + at]);
            return {samples: field(0), keys: field(1), largest: field(2), gap: field(3)};
        });
        this.functions?.close_all();
        return drawn;
    }

    /** Of the names in a folder: [{media, journal}], each null where there is none. */
    pair(names) {
        this.open();
        const given = new Map(names.map((name) => [wellFormed(name), name]));
        const bytes = new TextEncoder().encode([...given.keys()].map((name) => name + "\0").join(""));
        const fields = this.lend(bytes, (at) => this.text(this.functions.pair(at, bytes.length))).split("/");
        const get = (field) => given.get(field) ?? null;
        return Array.from({length: (fields.length - 1) / 2}, (_, i) => ({media: get(fields[2 * i]),
            journal: get(fields[2 * i + 1])}));
    }

    /**
     * SHA-256 of what was read and of what was made, in one pass: {read, made}. parts as in a plan, or null for no result.
     * progress(bytes) is called as it goes.
     */
    hashes(media, parts, progress = () => {}) {
        this.open().hash_begin();
        const add = (which, bytes) => this.lend(bytes, (at) => this.functions.hash_add(which, at, bytes.length));
        const kept = parts ? parts.findIndex((part) => part.begin !== undefined) : -1;
        const addParts = (some) => some.forEach((part) => addPart(add, part));
        if (parts) addParts(parts.slice(0, kept));
        for (let at = 0; at < media.size;) {
            const bytes = media.read(at, Math.min(HASHED, media.size - at)), {length} = bytes;
            if (length === 0) throw new Error("the file has become shorter");
            add(0, bytes);
            if (parts) {
                const {begin, end} = parts[kept];
                add(1, bytes.subarray(Math.max(0, Math.min(length, begin - at)), Math.max(0, end - at)));
            }
            media.done?.(bytes);
            at += length;
            progress(length);
        }
        if (parts) addParts(parts.slice(kept + 1));
        const digits = (which) => this.text(this.functions.hash_digits(which));
        return {read: digits(0), made: parts ? digits(1) : null};
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

function addPart(add, part) {
    if (part instanceof Uint8Array) return add(1, part);
    for (let left = part; left > 0; left -= HASHED) add(1, new Uint8Array(Math.min(left, HASHED)));
}
