/**
 * The functions of WASI (snapshot preview1) that the module calls, over files that somebody else has: a source is
 * {size, read(offset, count)}, which gives a Uint8Array, shorter only at the end, and throws where reading fails.
 *
 * Small reads are served from one block of each file, since a read of a Blob costs about a millisecond.
 */

const OK = 0, EBADF = 8, EIO = 29, ESPIPE = 70;
const BLOCK = 64 << 10; // bytes
const CHARACTER_DEVICE = 2, REGULAR_FILE = 4;
const STDERR = 2, FIRST = 3; // descriptors

/** A source of which small reads near each other are one read. */
class Blocks {
    constructor(source) {
        this.source = source;
        this.begin = 0;
        this.bytes = new Uint8Array(0);
    }

    read(offset, count) {
        const at = offset - this.begin;
        if (at >= 0 && at + count <= this.bytes.length) return this.bytes.subarray(at, at + count);
        if (count >= BLOCK) return this.source.read(offset, count);
        try {
            this.bytes = this.source.read(offset, Math.min(BLOCK, Math.max(0, this.source.size - offset)));
            this.begin = offset;
        } catch {
            return this.source.read(offset, count); // what is asked for may be there all the same
        }
        return this.bytes.subarray(0, count);
    }
}

export class Wasi {
    /** sources[0] is descriptor 3, and so on; null: not open. The one after them takes what is written. */
    constructor(sources) {
        this.files = sources.map((source) => source && new Blocks(source));
        this.memory = null; // of the module, once it is there
        this.made = []; // Uint8Arrays
    }

    get imports() {
        return {
            fd_pread: (fd, list, count, offset, result) => this.pread(fd, list, count, Number(offset), result),
            fd_write: (fd, list, count, result) => this.write(fd, list, count, result),
            fd_fdstat_get: (fd, result) => this.status(fd, result),
            fd_seek: () => ESPIPE,
            fd_close: () => OK,
        };
    }

    /** What was written since the last call. */
    take() {
        const made = this.made;
        this.made = [];
        return made;
    }

    view() {
        return new DataView(this.memory.buffer);
    }

    pread(fd, list, count, offset, result) {
        const file = this.files[fd - FIRST];
        if (!file) return EBADF;
        let done = 0;
        for (const [at, length] of this.vectors(list, count)) {
            let bytes;
            try {
                bytes = file.read(offset + done, length);
            } catch {
                return EIO;
            }
            new Uint8Array(this.memory.buffer).set(bytes, at);
            done += bytes.length;
            if (bytes.length < length) break;
        }
        this.view().setUint32(result, done, true);
        return OK;
    }

    /** What the core prints goes nowhere. */
    write(fd, list, count, result) {
        const keeps = fd === FIRST + this.files.length;
        if (!keeps && fd > STDERR) return EBADF;
        let done = 0;
        for (const [at, length] of this.vectors(list, count)) {
            if (keeps) this.made.push(new Uint8Array(this.memory.buffer.slice(at, at + length)));
            done += length;
        }
        this.view().setUint32(result, done, true);
        return OK;
    }

    status(fd, result) {
        if (fd > FIRST + this.files.length) return EBADF;
        const view = this.view();
        view.setUint8(result, fd <= STDERR ? CHARACTER_DEVICE : REGULAR_FILE);
        view.setUint16(result + 2, 0, true);
        view.setBigUint64(result + 8, 0xffffffffffffffffn, true); // rights
        view.setBigUint64(result + 16, 0xffffffffffffffffn, true);
        return OK;
    }

    /** [address, length] of each part of a gather list. */
    vectors(list, count) {
        const view = this.view();
        return Array.from({length: count}, (_, i) => [view.getUint32(list + 8 * i, true),
            view.getUint32(list + 8 * i + 4, true)]);
    }
}
