/** What a person gives: files and folders, dropped or chosen; and which recordings are among them. */
import {text} from "./texts.js";

const DEEPEST = 8; // folders, as the command goes

/** [path, File] of all files of an entry of a drop. */
async function filesOf(entry, depth = 0) {
    if (entry.isFile) {
        const file = await new Promise((resolve) => entry.file(resolve, () => resolve(null)));
        return file ? [[entry.fullPath.slice(1), file]] : [];
    }
    if (depth > DEEPEST) return [];
    const reader = entry.createReader(), found = [];
    for (;;) {
        const some = await new Promise((resolve) => reader.readEntries(resolve, () => resolve([])));
        if (some.length === 0) return found;
        for (const each of some) for (const file of await filesOf(each, depth + 1)) found.push(file);
    }
}

/** Likewise of a handle, which a page that comes from disk may read, too. */
async function filesOfHandle(handle, path = handle.name, depth = 0) {
    if (handle.kind === "file") return [[path, await handle.getFile()]];
    const found = [];
    if (depth > DEEPEST) return found;
    for await (const each of handle.values())
        for (const file of await filesOfHandle(each, `${path}/${each.name}`, depth + 1)) found.push(file);
    return found;
}

/** What an item of a drop holds is asked for at once, and read later. */
function readerOf(item) {
    const file = item.getAsFile(), entry = item.webkitGetAsEntry?.();
    const handle = item.getAsFileSystemHandle?.().catch(() => null) ?? null;
    return async () => {
        if (entry && !entry.isDirectory) return file ? [[file.name, file]] : [];
        const opened = await handle;
        return opened ? filesOfHandle(opened) : entry ? filesOf(entry) : [];
    };
}

/** [path, File] of all that was dropped. */
export async function filesOfDrop({items}) {
    const readers = [...items].filter(({kind}) => kind === "file").map(readerOf), found = [];
    for (const read of readers) for (const each of await read().catch(() => [])) found.push(each);
    return found;
}

export const filesOfInput = ({files}) => [...files].map((file) => [file.webkitRelativePath || file.name, file]);

export const folderOf = (path) => path.slice(0, path.lastIndexOf("/") + 1);
export const nameOf = (path) => path.slice(path.lastIndexOf("/") + 1);

const isSame = (a, b) => a.size === b.size && a.lastModified === b.lastModified;

function groups(list, keyOf) {
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

    /** The recordings, by what pair(names) says of a folder: path, media and journal of each. Single files all count. */
    async recordings(pair) {
        const found = [];
        for (const [folder, paths] of groups(this.files.keys(), folderOf)) {
            const names = paths.map(nameOf), pairs = await pair(names);
            const used = new Set(pairs.flatMap(({media, journal}) => [media, journal]));
            const others = this.loose.has(folder) ? names.filter((name) => !used.has(name)) : [];
            const get = (name) => name && this.files.get(folder + name);
            for (const {media, journal} of [...pairs, ...others.map((name) => ({media: name, journal: null}))])
                found.push({path: folder + (media ?? journal), media: get(media), journal: get(journal)});
        }
        return found;
    }
}
