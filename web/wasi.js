/**
 * The functions of WASI (snapshot preview1) that the module calls, over files that somebody else has: a source is
 * {size, read(offset, count)}, which gives a Uint8Array, shorter only at the end, and throws where reading fails. With
 * done(bytes) it gets back what it gave; with forget() it may give up what it keeps, since a plan is made.
 *
 * More is read than what is asked for, since a read of a Blob costs about a millisecond.
 */

const OK = 0, EBADF = 8, EIO = 29, ESPIPE = 70;
const BLOCK = 64 << 10, AHEAD = 256 << 10; // bytes
const KEPT = 4; // blocks of a file: its head and its end are asked for again
const CHARACTER_DEVICE = 2, REGULAR_FILE = 4;
const WRITE = 1n << 6n, ALL = (1n << 29n) - 1n; // rights
const STDERR = 2, FIRST = 3, MADE = 5; // descriptors: two sources, and what takes the module's output

/** A source of which reads near each other are one read. */
class Blocks {
    constructor(source) {
        this.source = source;
        this.small = []; // {begin, bytes}, the latest first
        this.large = []; // likewise, one at most: who asks for much goes through the file
    }

    read(offset, count) {
        const inside = ({begin, bytes}) => offset >= begin && offset + count <= begin + bytes.length;
        const found = this.large.find(inside) ?? this.small.find(inside) ?? this.fetch(offset, count);
        return found.bytes.subarray(offset - found.begin, offset - found.begin + count);
    }

    fetch(offset, count) {
        const [list, length, most] = count < BLOCK ? [this.small, BLOCK, KEPT] : [this.large, Math.max(AHEAD, count), 1];
        let bytes;
        try {
            bytes = this.source.read(offset, Math.min(length, Math.max(0, this.source.size - offset)));
        } catch {
            return {begin: offset, bytes: this.source.read(offset, count)}; // what is asked for may be there all the same
        }
        list.unshift({begin: offset, bytes});
        const old = list.length > most ? list.pop() : null;
        if (old) this.source.done?.(old.bytes);
        return list[0];
    }
}

export class Wasi {
    /** print(bytes) gets what the core prints. */
    constructor(print) {
        this.print = print;
        this.memory = null; // of the module, once it is there
        this.open([]);
    }

    /** sources[0] is descriptor 3, and so on; null: not open. */
    open(sources) {
        this.files = sources.map((source) => source && new Blocks(source));
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

    write(fd, list, count, result) {
        const keeps = fd === MADE;
        if (!keeps && fd > STDERR) return EBADF;
        let done = 0;
        for (const [at, length] of this.vectors(list, count)) {
            const bytes = new Uint8Array(this.memory.buffer.slice(at, at + length));
            if (keeps) this.made.push(bytes);
            else this.print(bytes);
            done += length;
        }
        this.view().setUint32(result, done, true);
        return OK;
    }

    status(fd, result) {
        if (fd > MADE) return EBADF;
        const view = this.view();
        const terminal = fd <= STDERR; // libc hands its lines on at once
        view.setUint8(result, terminal ? CHARACTER_DEVICE : REGULAR_FILE);
        view.setUint16(result + 2, 0, true);
        view.setBigUint64(result + 8, terminal ? WRITE : ALL, true); // rights
        view.setBigUint64(result + 16, 0n, true);
        return OK;
    }

    /** [address, length] of each part of a gather list. */
    vectors(list, count) {
        const view = this.view();
        return Array.from({length: count}, (_, i) => [view.getUint32(list + 8 * i, true),
            view.getUint32(list + 8 * i + 4, true)]);
    }
}
