/** What is known of a recording, in words. An item has media, journal, options, what was found, and once repaired its blob. */
import {nameOf} from "./given.js";
import {isolated} from "./names.js";
import {date, duration, number, size, text} from "./texts.js";

/** What a person may choose, by what the module says would help: as recovery.h has them. */
export const OPTION = {can_salvage: 2, can_keep_damaged: 4, can_force: 8};

export const isRepairable = (item) => ["repaired", "salvaged"].includes(item.found.result) && !item.blob;
export const fileOf = (item) => item.blob ?? (item.found.result === "finished" ? item.media : null);
export const lengthOf = (item) => Math.max(0, ...item.found.tracks.map((track) => track.duration));

export function stateOf(item) {
    if (item.blob) return "repaired";
    const states = {repaired: "repairable", salvaged: "repairable", finished: "finished", empty_removed: "empty"};
    return states[item.found.result] ?? item.found.result;
}

export function whatOf(item) {
    return resultOf(item) + (item.found.protected ? ` ${text("protected")}` : "");
}

function resultOf(item) {
    const {result, reason, foreign_journal: foreign} = item.found, length = lengthOf(item);
    const values = {duration: length < 0.05 ? text("moment") : duration(length)};
    if (item.blob) return text("result.repaired", values);
    if (result === "repaired") return text("result.repairable", values);
    if (result === "salvaged") return text("result.salvageable", values);
    if (item.media) values.size = size(item.media.size);
    if (result === "empty_removed") return text(item.media.size ? "result.empty" : "result.nothing", values);
    if (result === "refused") return text(`reason.${reason}`, {...values, journal: isolated(`${nameOf(item.path)}.journal`)});
    if (result === "failed") return text(reason === "gone" ? "gone" : "result.failed");
    return text(`result.${result}`) + (foreign ? ` ${text("result.foreign")}` : "");
}

function leftOutOf({video, sound, video_seconds: seen, sound_seconds: heard, is_beyond: beyond} = {}) {
    if (!video && !sound) return [];
    const values = {count: video || sound, duration: duration(video ? seen : heard)};
    return [text(`lost.${beyond ? "beyond" : "left_out"}_${video ? "video" : "sound"}`, values)];
}

export function lostOf(item) {
    const found = item.found, lost = [];
    if (!["repaired", "salvaged"].includes(found.result)) return "";
    if (found.cut) lost.push(text("lost.cut", {size: size(found.cut)}));
    if (found.added) lost.push(text("lost.added", {size: size(found.added)}));
    lost.push(...leftOutOf(found.left_out));
    if (found.bad_bytes) lost.push(text("lost.bad", {size: size(found.bad_bytes)}));
    if (found.journal_lost) lost.push(text("lost.journal", {size: size(found.journal_lost)}));
    return lost.join(" ") || text(found.samples ? "lost.nothing" : "lost.size_alone");
}

export function trackText({video, codec, width, height, rate, channels}) {
    if (video) return text("track.video", {codec, width, height});
    const sound = channels === 2 ? text("stereo") : text("channels", {count: channels});
    return text("track.sound", {codec, rate: number(rate / 1000, 1), channels: sound});
}

export function metaOf(item) {
    const length = lengthOf(item), file = item.media ?? item.journal;
    return [date(file.lastModified), ...(length ? [duration(length)] : []), size(file.size), ...item.found.tracks.map(trackText)];
}
