/** What a person gives: files and folders, dropped or chosen; and which recordings are among them. */
import {text} from "./texts.js";

const DEEPEST = 8; // folders, as the command goes

/** Adds all below an entry of a drop: [path, File] to found.files, the path of what cannot be read to found.failed. */
async function addEntry(entry, found, depth = 0) {
    const path = entry.fullPath.slice(1), failed = () => void found.failed.push(path);
    if (entry.isFile) {
        return new Promise((resolve, reject) => entry.file(resolve, reject))
            .then((file) => void found.files.push([path, file]), failed);
    }
    if (depth > DEEPEST) return;
    const reader = entry.createReader();
    for (;;) {
        const some = await new Promise((resolve) => reader.readEntries(resolve, () => (failed(), resolve([]))));
        if (some.length === 0) return;
        for (const each of some) await addEntry(each, found, depth + 1);
    }
}

/** Likewise below a handle, which a page that comes from disk may read, too. A name that is no Unicode is empty there. */
async function addHandle(handle, found, path = handle.name, depth = 0) {
    try {
        if (handle.kind === "file") {
            if (!handle.name) throw new Error("no name");
            found.files.push([path, await handle.getFile()]);
        } else if (depth <= DEEPEST) {
            for await (const each of handle.values()) await addHandle(each, found, `${path}/${each.name}`, depth + 1);
        }
    } catch {
        found.failed.push(path);
    }
}

/** What an item of a drop holds is asked for at once, and read later. */
function readerOf(item) {
    const file = item.getAsFile(), entry = item.webkitGetAsEntry?.();
    const handle = item.getAsFileSystemHandle?.().catch(() => null) ?? null;
    return async (found) => {
        if (entry && !entry.isDirectory) return file && found.files.push([file.name, file]);
        const opened = await handle;
        return opened ? addHandle(opened, found) : entry && addEntry(entry, found);
    };
}

/** All that was dropped: {files: [path, File], failed: paths of what cannot be read}. */
export async function filesOfDrop({items}) {
    const readers = [...items].filter(({kind}) => kind === "file").map(readerOf), found = {files: [], failed: []};
    for (const read of readers) await read(found);
    return found;
}

export const filesOfInput = ({files}) => ({files: [...files].map((file) => [file.webkitRelativePath || file.name, file]), failed: []});

export const folderOf = (path) => path.slice(0, path.lastIndexOf("/") + 1);
export const nameOf = (path) => path.slice(path.lastIndexOf("/") + 1);

const isSame = (a, b) => a.size === b.size && a.lastModified === b.lastModified;

/** Map of the lists of those with the same key. */
export function groups(list, keyOf) {
    const found = new Map();
    for (const each of list) {
        const key = keyOf(each);
        if (!found.has(key)) found.set(key, []);
        found.get(key).push(each);
    }
    return found;
}

/**
 * All files so far. Two folders of one name are kept apart unless they are the same: have a file in common, and none that
 * differs. Single files are kept apart where one differs.
 */
export class Given {
    files = new Map(); // path: File
    folders = new Set(); // the first ones of the paths, such as "CARD/"
    loose = new Set(); // those of single files

    add(given) {
        const topOf = ([path]) => path.slice(0, path.indexOf("/") + 1);
        for (const [top, list] of groups(given, topOf)) {
            const seen = new Map(), taken = new Set();
            const occurrence = ([path]) => (seen.set(path, (seen.get(path) ?? 0) + 1), seen.get(path));
            for (const part of groups(list, occurrence).values()) // names that a browser cannot tell apart
                this.put(top, part.map(([path, file]) => [path.slice(top.length), file]), taken);
        }
    }

    put(top, list, taken) {
        let folder = top;
        for (let n = 2; taken.has(folder) || !this.accepts(folder, list, !top); n++)
            folder = `${text("another", {name: top.slice(0, -1) || text("single_files"), n})}/`;
        taken.add(folder);
        this.folders.add(folder);
        if (!top) this.loose.add(folder);
        for (const [path, file] of list) this.files.set(folder + path, file);
    }

    accepts(folder, list, isLoose) {
        const old = list.map(([path]) => this.files.get(folder + path));
        if (old.some((file, i) => file && !isSame(file, list[i][1]))) return false;
        return isLoose || !this.folders.has(folder) || old.some(Boolean);
    }

    /**
     * The recordings, by what pair(names) says of a folder: path, media and journal of each; and the folders that have other
     * files alone. Single files all count.
     */
    async recordings(pair) {
        const found = [], without = [];
        for (const [folder, paths] of groups(this.files.keys(), folderOf)) {
            const names = paths.map(nameOf), pairs = await pair(names);
            const used = new Set(pairs.flatMap(({media, journal}) => [media, journal]));
            const others = this.loose.has(folder) ? names.filter((name) => !used.has(name)) : [];
            const get = (name) => name && this.files.get(folder + name);
            if (pairs.length + others.length === 0) without.push(folder);
            for (const {media, journal} of [...pairs, ...others.map((name) => ({media: name, journal: null}))])
                found.push({path: folder + (media ?? journal), media: get(media), journal: get(journal)});
        }
        return {found, without};
    }
}
