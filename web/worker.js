/**
 * What reads: it has the module, and reads files with FileReaderSync. Each message is {id, call, args}; the answer is
 * {id, value} or {id, error}, and before it {id, progress}.
 */
import {Joined, Repair} from "./repair.js";

/** A Blob as a source. */
class BlobSource {
    constructor(blob) {
        this.blob = blob;
        this.size = blob.size;
        this.reader = new FileReaderSync();
    }

    read(offset, count) {
        try {
            return new Uint8Array(this.reader.readAsArrayBuffer(this.blob.slice(offset, offset + count)));
        } catch (error) {
            this.hasFailed = true;
            throw error;
        }
    }

    /** Whether nothing of it can be read any more. */
    get isGone() {
        try {
            return this.hasFailed && this.read(0, 1).length === 0;
        } catch {
            return true;
        }
    }

    /** What was read is not left for the next collection of garbage: of a long journal that would be 100 MB. */
    done(bytes) {
        drop(bytes);
    }
}

const WHOLE = 32 << 20; // bytes, of a journal that is read at once

/** Likewise of a journal: a plan goes through it five times, so all of it stays in memory until the plan is made. */
class JournalSource extends BlobSource {
    read(offset, count) {
        this.bytes ??= this.readWhole();
        return this.bytes.length ? this.bytes.subarray(offset, offset + count) : super.read(offset, count);
    }

    /** Nothing where a part cannot be read: then the others are read one by one. */
    readWhole() {
        try {
            return this.size <= WHOLE ? super.read(0, this.size) : new Uint8Array();
        } catch {
            return new Uint8Array();
        }
    }

    done(bytes) {
        if (!this.bytes.length) drop(bytes);
    }

    forget() {
        if (this.bytes?.length) drop(this.bytes);
        this.bytes = null;
    }
}

/** Frees memory at once: sent to nobody. (A transfer within JavaScript leaves a share of it with the browser.) */
function drop(bytes) {
    nobody.postMessage(null, [bytes.buffer]);
}

const dropAll = (parts) => parts.filter((part) => part instanceof Uint8Array).forEach(drop);

const {port1: nobody, port2} = new MessageChannel();
port2.close();

let repair = null;

const sourceOf = (file) => file && new BlobSource(file);

/**
 * The result, without a copy of the media: it is read from the card when somebody reads the Blob. `borrowed` is where in the
 * Blob: [begin, end] of each such part.
 */
function blobOf(parts, media) {
    const zeros = new Uint8Array(1 << 16);
    const borrowed = new Joined(parts, null).parts.filter(({part}) => part.begin !== undefined)
        .map(({at, length}) => [at, at + length]);
    const pieces = parts.flatMap((part) => {
        if (part instanceof Uint8Array) return [part];
        if (typeof part === "object") return [media.slice(part.begin, part.end)];
        const whole = new Array(Math.floor(part / zeros.length)).fill(zeros);
        return [...whole, zeros.subarray(0, part % zeros.length)];
    });
    const blob = new Blob(pieces, {type: "video/mp4"});
    dropAll(parts);
    return {blob, borrowed};
}

function planOf({media, journal, options}) {
    const sources = [sourceOf(media), journal && new JournalSource(journal)];
    const {error, ...found} = repair.plan(...sources, options);
    return sources.some((source) => source?.isGone) ? {result: "failed", reason: "gone"} : found;
}

/** What is found, with the tracks as they are in the result, or in the file where it is finished. */
function examine(args) {
    const {parts, ...found} = planOf(args), media = sourceOf(args.media);
    const whole = parts ? Object.assign(new Joined(parts, media), {done: drop}) : found.result === "finished" ? media : null;
    const tracks = whole ? repair.tracks(whole) : [];
    dropAll(parts ?? []);
    return {...found, tracks};
}

/** SHA-256 of the recording, of its journal, and of the result of that size; null for what there is none of. */
function hash(args, progress) {
    const {media, journal, made} = args, parts = made === null ? null : planOf(args).parts;
    if (parts === undefined || (parts && new Joined(parts, null).size !== made)) throw new Error("it has changed");
    const sums = media ? repair.hashes(sourceOf(media), parts, progress) : {read: null, made: null};
    return {...sums, journal: journal ? repair.hashes(sourceOf(journal), null, progress).read : null};
}

const CALLS = {
    begin: ({module}) => {
        repair = new Repair(module);
    },
    pair: ({names}) => repair.pair(names),
    examine,
    repair: (args) => {
        const {parts, ...found} = planOf(args);
        return parts ? blobOf(parts, args.media) : {found: {...found, tracks: []}};
    },
    draw: ({file, columns, length}) => repair.draw(sourceOf(file), 0, length, columns),
    hash,
    sum: ({file}) => repair.hashes(sourceOf(file), null).read,
};

onmessage = ({data: {id, call, args}}) => {
    try {
        postMessage({id, value: CALLS[call](args, (progress) => postMessage({id, progress}))});
    } catch (error) {
        postMessage({id, error: String(error)});
    }
};
