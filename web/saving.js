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
async function write(handle, blob) {
    await blob.stream().pipeTo(await handle.createWritable());
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

export async function saveInto(folder, name, blob) {
    if (folder) return write(await folder.getFileHandle(name, {create: true}), blob);
    download(name, blob);
    return new Promise((resolve) => setTimeout(resolve, DOWNLOAD_PAUSE));
}
