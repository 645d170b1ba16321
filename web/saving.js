/** Saving what was made: as a download, or into a new file where the browser lets a page write one. */
import {text} from "./texts.js";

const DOWNLOAD_PAUSE = 150; // ms: Chromium drops what is more than ten in a second
const KEPT = 600000; // ms, of what a download reads

/** Throws unless the first and the last byte of each part of a Blob can be read: parts are [begin, end]. */
export async function assertReadable(blob, parts) {
    const ends = parts.filter(([begin, end]) => begin < end).flatMap(([begin, end]) => [begin, end - 1]);
    for (const at of ends) await blob.slice(at, at + 1).arrayBuffer();
}

function download(name, blob) {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(blob);
    link.download = name;
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), KEPT);
}

/** Ends when all of it is in the file. */
async function write(handle, blob, signal) {
    await blob.stream().pipeTo(await handle.createWritable(), {signal});
    if ((await handle.getFile()).size !== blob.size) throw new Error(text("incomplete"));
}

/** What became of it: a text with {name}; null when the person has chosen no file. */
export async function saveAs(name, blob) {
    if (!window.showSaveFilePicker) {
        download(name, blob);
        return {key: "download_started", name};
    }
    let handle;
    try {
        handle = await window.showSaveFilePicker({suggestedName: name});
    } catch (error) {
        if (error.name === "AbortError") return null;
        throw error;
    }
    await write(handle, blob);
    return {key: "saved", name: handle.name};
}

/** clip.mp4 becomes clip-2.mp4 */
const numbered = (name, n) => n < 2 ? name : name.replace(/(\.[^.]*)?$/, `-${n}$1`);

/** Whether a folder has nothing of that name. */
async function isFree(folder, name) {
    try {
        await folder.getFileHandle(name);
        return false;
    } catch (error) {
        if (error.name === "NotFoundError") return true;
        if (error.name === "TypeMismatchError") return false; // a folder
        throw error;
    }
}

/** Many results: into a folder that the person chooses, where the browser has that; else as downloads. */
export class Target {
    /** null when the person has chosen none. */
    static async choose() {
        try {
            return new Target(await window.showDirectoryPicker?.({mode: "readwrite"}));
        } catch (error) {
            if (error.name === "AbortError") return null;
            throw error;
        }
    }

    constructor(folder) {
        this.folder = folder;
        this.names = new Set(); // given so far, without difference of case
    }

    get isFolder() {
        return Boolean(this.folder);
    }

    /** What became of it, as of saveAs: what is there stays, and another of its name gets a number. */
    async save(wanted, blob, signal) {
        const name = await this.freeName(wanted);
        if (this.folder) {
            await this.write(name, blob, signal);
        } else {
            download(name, blob);
            await new Promise((resolve) => setTimeout(resolve, DOWNLOAD_PAUSE));
        }
        return {key: this.folder ? "saved" : "download_started", name};
    }

    async freeName(wanted) {
        for (let n = 1;; n++) {
            const name = numbered(wanted, n), key = name.toLowerCase();
            if (this.names.has(key) || (this.folder && !await isFree(this.folder, name))) continue;
            this.names.add(key);
            return name;
        }
    }

    /** A file that was not completed does not stay. */
    async write(name, blob, signal) {
        const handle = await this.folder.getFileHandle(name, {create: true});
        try {
            await write(handle, blob, signal);
        } catch (error) {
            await this.folder.removeEntry(name).catch(() => {});
            throw error;
        }
    }
}
