/** Files for the tests of the module: sources as wasi.js wants them, and what a plan's parts amount to. */
import {closeSync, fstatSync, openSync, readFileSync, readSync} from "node:fs";
import {fileURLToPath} from "node:url";

/** A file on disk, read where it is asked for; reads are counted. */
export class FileSource {
    constructor(path) {
        this.fd = openSync(path);
        this.size = fstatSync(this.fd).size;
        this.reads = this.moved = 0;
    }

    read(offset, count) {
        this.reads++;
        const bytes = new Uint8Array(Math.max(0, Math.min(count, this.size - offset)));
        this.moved += bytes.length;
        return bytes.subarray(0, readSync(this.fd, bytes, 0, bytes.length, offset));
    }

    close() {
        closeSync(this.fd);
    }
}

/** Bytes in memory. */
export class ByteSource {
    constructor(bytes) {
        this.bytes = bytes;
        this.size = bytes.length;
    }

    read(offset, count) {
        return this.bytes.subarray(offset, Math.min(offset + count, this.size));
    }
}

/** The bytes of a result. */
export function assemble(parts, media) {
    return Buffer.concat(parts.map((part) => {
        if (part instanceof Uint8Array) return part;
        return typeof part === "number" ? new Uint8Array(part) : media.read(part.begin, part.end - part.begin);
    }));
}

const OUT = fileURLToPath(new URL("../../../out", import.meta.url));
export const BUILD = process.env.BUILD ?? `${OUT}/test`, PAGE = process.env.PAGE ?? `${OUT}/web`;
export const loadModule = () => new WebAssembly.Module(readFileSync(`${PAGE}/web/mediafiles-repair.wasm`));
