/** What the report says of a recording. */
import {shown} from "./names.js";
import {OPTION, lostOf, trackText, whatOf} from "./recording.js";
import {exactDate, number, text} from "./texts.js";

const fileFacts = (file) => ({name: shown(file.name), bytes: number(file.size), date: exactDate(file.lastModified)});

function filesOf({media, journal, blob, saved, options = 0, sums}) {
    const sum = (digits) => digits ? [text("report_file.sum", {sum: digits})] : [];
    const chosen = Object.entries(OPTION).filter(([, bit]) => options & bit).map(([name]) => text(`option.${name}`));
    return [
        ...(media ? [text("report_file.media", fileFacts(media)), ...sum(sums?.read)] : []),
        ...(journal ? [text("report_file.journal", fileFacts(journal)), ...sum(sums?.journal)] : []),
        ...(chosen.length ? [text("report_file.options", {options: chosen.join("; ")})] : []),
        ...(blob ? [text("report_file.made", {bytes: number(blob.size)}), ...sum(sums?.made)] : []),
        ...(saved ? [text(`report_file.${saved.key}`, {name: shown(saved.name)})] : []),
        ...(sums?.failed ? [text("report_file.failed")] : []),
    ];
}

/** Its row: the name, what it is, its tracks, what is lost, files; each may have several lines. */
export function rowOf(item) {
    const tracks = item.found.tracks.map((track) => text("report_track", {count: track.samples, track: trackText(track), samples: number(track.samples),
        seconds: number(track.duration, 3)}));
    return [shown(item.path), whatOf(item), tracks.join("\n"), lostOf(item), filesOf(item).join("\n")];
}
