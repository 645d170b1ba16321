/** The time line of a track as SVG: how large its frames are, which are key frames, gaps, and where it was cut off. */
import {duration, size, text} from "./texts.js";

const HEIGHT = 72, KEYS = 10; // units; the band of the key frames is at the bottom
const END = 0.03; // of the width, for the cut

function shape(name, attributes) {
    const made = document.createElementNS("http://www.w3.org/2000/svg", name);
    for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
    return made;
}

/** One path of upright bars, [column, height] each. */
function bars(list, bottom, name) {
    const d = list.map(([x, height]) => `M${x} ${bottom}v${-height}h1v${height}z`).join("");
    return shape("path", {d, class: name});
}

/** What the drawing shows, in words. */
function describe(track, largest) {
    const gaps = track.gaps.length ? text("gaps", {count: track.gaps.length}) : text("no_gap");
    const kind = text(track.video ? "video_track" : "sound_track");
    return text("drawing", {kind, codec: track.codec, duration: duration(track.duration), samples: track.samples,
        keys: track.keys, largest: size(largest), gaps});
}

/** @param drawn  the columns of the track, of a time of `length` seconds; @param cut  whether it was cut off at its end */
export function drawing(track, drawn, cut) {
    const columns = drawn.samples.length, width = columns * (1 + END);
    const largest = drawn.largest.reduce((a, b) => Math.max(a, b), 1);
    const svg = shape("svg", {viewBox: `0 0 ${width} ${HEIGHT}`, preserveAspectRatio: "none", role: "img",
        "aria-label": describe(track, largest), class: "drawing"});
    const room = HEIGHT - KEYS - 4, list = Array.from(drawn.samples.keys());
    const height = (i) => Math.max(1, drawn.largest[i] / largest * room);
    const tall = (flags, value) => list.filter((i) => flags[i]).map((i) => [i, value(i)]);
    svg.append(shape("rect", {class: "ground", width: columns, height: HEIGHT - KEYS}),
        bars(tall(drawn.gap, () => HEIGHT - KEYS), HEIGHT - KEYS, "gap"),
        bars(tall(drawn.samples, height), HEIGHT - KEYS, "frames"));
    if (track.video) {
        svg.append(bars(tall(drawn.keys, height), HEIGHT - KEYS, "key"),
            bars(tall(drawn.keys, () => KEYS - 3), HEIGHT, "key"));
    }
    if (cut) svg.append(shape("path", {class: "cut", d: `M${columns + width * END / 3} 0v${HEIGHT}`}));
    return svg;
}
