/** Names of files, which whoever wrote the card has chosen. */

/** Nothing that is invisible or changes the order of what is read: control and format characters, lone surrogates. */
const UNSEEN = /[\p{C}\p{Zl}\p{Zp}]/gu;
const NOT_IN_NAMES = /[<>:"/\\|?*]/g; // on the file systems of laptops

const escaped = (character) => `\\u{${character.codePointAt(0).toString(16).toUpperCase()}}`;

/** A name as it is shown: what cannot be seen is written as \u{202E}. */
export function shown(name) {
    return name.replaceAll("\\", "\\\\").replace(UNSEEN, escaped);
}

export const ISOLATES = /[\u2068\u2069]/g;

/** Likewise inside a sentence, which it does not reorder: between two ISOLATES. */
export const isolated = (name) => `\u2068${shown(name)}\u2069`;

/** A name that every file system takes, for what is saved. */
export function plain(name) {
    return name.replace(UNSEEN, "_").replace(NOT_IN_NAMES, "_");
}

/** The same name for UTF-8: a lone surrogate becomes a character for private use, which can be told from others. */
export function wellFormed(name) {
    return name.replace(/\p{Cs}/gu, (one) => String.fromCodePoint(0xf0000 + one.charCodeAt(0)));
}
