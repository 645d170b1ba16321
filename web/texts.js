/**
 * Every text of the page. Another language is another copy of this file: its locale decides how numbers, dates and
 * plurals are written. {name} is replaced; a text with the forms one and other is chosen by {count}.
 */
export const TEXTS = {
    locale: "en",
    title: "Repair recordings",
    lead: "Recordings that were cut off play again. Everything happens in this window: nothing is uploaded, and the card is only read.",
    drop: "Drop recordings, a folder or a whole card here",
    choose_files: "Choose files…",
    choose_folder: "Choose a card or folder…",
    drop_hint: "A recording that was cut off has two files: clip.mp4 and its journal, clip.mp4.journal. Give both.",
    recordings: "Recordings",
    another: "{name} ({n})",
    single_files: "files",
    looking: "Looking at {count} of {total}…",
    repairing: "Repairing {count} of {total}…",
    hashing: "Computing checksums: {count} of {total}…",
    saving: "Saving {count} of {total}…",
    go_on: "Look at the others",
    stopped_looking: {one: "Stopped: 1 recording was not looked at.", other: "Stopped: {count} recordings were not looked at."},
    stopped_repairing: "Stopped: {count} of {total} were repaired.",
    all_repaired: {one: "1 recording was repaired.", other: "{count} recordings were repaired."},
    not_repaired: "Not repaired: {name}. {why}",
    summary: {one: "1 recording", other: "{count} recordings"},
    summary_parts: {repairable: "{count} to repair", repaired: "{count} repaired", finished: "{count} complete",
        others: "{count} left as they are"},
    ignored: {one: "1 other file was not looked at: photos and the like need no repair.",
        other: "{count} other files were not looked at: photos and the like need no repair."},
    without: {one: "A folder without recordings: {list}", other: "Folders without recordings: {list}"},
    missing: "Is a recording missing here? Browsers keep some names from a page. Choose the folder with the button instead of dropping it; or copy the file under another name, and give the copy.",
    unread: {one: "1 file in {folder} cannot be opened: the card cannot be read there, or its name has letters that no browser can read. Copy or rename it, and give it again.",
        other: "{count} files in {folder} cannot be opened: the card cannot be read there, or their names have letters that no browser can read. Copy or rename them, and give them again."},
    nothing: {one: "The file that you gave is no recording. Recordings are called NAME.mp4, each with NAME.mp4.journal while it is recorded. Photos and the like need no repair.",
        other: "None of the {count} files is a recording. Recordings are called NAME.mp4, each with NAME.mp4.journal while it is recorded. Photos and the like need no repair."},
    repair: "Repair",
    repair_all: "Repair all",
    save: "Save…",
    save_all: "Save all…",
    saved: "Saved: {name}",
    all_saved: {one: "1 recording was saved.", other: "{count} recordings were saved."},
    stopped_saving: {one: "Stopped: 1 recording was not saved.", other: "Stopped: {count} recordings were not saved."},
    download_started: "Download started: {name}. It is saved when your browser says so.",
    downloads_started: {one: "1 download started. It is saved when your browser says so.",
        other: "{count} downloads started. Look at your browser's list of downloads: what is not in it was not saved."},
    not_saved: "Not saved: {name}. {why}",
    incomplete: "The file that was written is shorter than the recording.",
    gone: "The original can no longer be read: it was changed or removed, or the card is no longer there. Give it again.",
    play: "Play",
    close: "Close",
    inside: "Look inside",
    cannot_play: "This browser cannot show this video ({codec}). The file is good all the same: save it, and open it in a video player.",
    video_of: "Video: {name}",
    named: "{action}: {name}",

    badge: {looking: "looking", repairable: "can be repaired", repaired: "repaired", finished: "complete", empty: "no list of frames",
        not_ours: "not a recording", refused: "not repaired", failed: "not readable"},
    result: {
        repairable: "It was cut off. {duration} can be brought back.",
        salvageable: "It was cut off and is damaged. {duration} can be brought back.",
        repaired: "Repaired: {duration} of recording, ready to play and to save.",
        finished: "It is complete and needs no repair.",
        foreign: "The journal beside it belongs to another recording, or is damaged. It was not used.",
        empty: "No list of frames was written: its media, {size}, cannot be put in order. The original stays as it is.",
        nothing: "Nothing was written to it, and no list of frames. The original stays as it is.",
        not_ours: "It is no recording of this kind. It stays as it is.",
        failed: "It could not be examined. Load this page again, and give this recording alone.",
    },
    lost: {
        nothing: "Every frame that its journal lists is kept.",
        size_alone: "Its list of frames is complete: only a size at its beginning was missing.",
        cut: "At its end {size} are left out: no whole frame is known there.",
        added: "The last frame is incomplete: {size} of it are missing, and filled with zeros.",
        bad: "{size} of it are damaged, or left out because of damage.",
        beyond_video: {one: "It is shorter than its journal says: 1 more video frame is listed there ({duration}). If this is a copy, copy it again.",
            other: "It is shorter than its journal says: {count} more video frames are listed there ({duration}). If this is a copy, copy it again."},
        left_out_video: {one: "1 more video frame that its journal lists ({duration}) is left out.",
            other: "{count} more video frames that its journal lists ({duration}) are left out."},
        beyond_sound: {one: "It is shorter than its journal says: 1 more sound frame is listed there ({duration}). If this is a copy, copy it again.",
            other: "It is shorter than its journal says: {count} more sound frames are listed there ({duration}). If this is a copy, copy it again."},
        left_out_sound: {one: "1 more sound frame that its journal lists ({duration}) is left out.",
            other: "{count} more sound frames that its journal lists ({duration}) are left out."},
        journal: "{size} at the end of its journal are no valid list of frames.",
    },
    protected: "Its journal marks it as protected.",
    reason: {
        no_journal: "It was cut off, and its journal ({journal}) is missing. Without it nobody knows where the frames are. If you have the journal, choose both files together.",
        no_samples: "Its journal lists no frame: its media, {size}, cannot be put in order. The original stays as it is.",
        journal_damaged: "Its journal is damaged.",
        media_damaged: "Parts of the recording are damaged.",
        foreign_journal: "The journal beside it belongs to another recording, or the recording is damaged from its beginning.",
        large_cut: "More than half of it would be cut off. That is unusual: is it the right journal?",
        large_growth: "It would grow to more than twice its size. That is unusual: is the copy complete?",
        no_frame_left: "Nothing would be left.",
        too_large: "It is larger than a recording can be.",
        cannot_replay: "Its journal contradicts itself.",
        no_media: "This is the journal of a recording that is missing. Choose both files together.",
        changed: "It changed while it was read. Is it still being recorded, or copied?",
    },
    option: {can_salvage: "Keep what comes before the damage", can_keep_damaged: "Keep everything, damage included",
        can_force: "Repair it anyway"},

    track: {video: "{codec}, {width} × {height}", sound: "{codec}, {rate} kHz, {channels}"},
    channels: {one: "mono", other: "{count} channels"},
    stereo: "stereo",
    size: {B: {one: "1 byte", other: "{n} bytes"}, kB: "{n} kB", MB: "{n} MB", GB: "{n} GB"},
    moment: "less than 0.1 s",
    duration: {hours: "{h} h {m} min", minutes: "{m} min {s} s", seconds: "{s} s"},

    time_line: "Time line",
    video_track: "Video",
    sound_track: "Sound",
    legend: {frames: "frame sizes", key: "key frame", gap: "nothing recorded", cut: "cut off here"},
    drawing: "{kind} ({codec}), {duration}: {samples} frames, {keys} of them key frames, the largest {largest}; {gaps}.",
    gaps: {one: "1 gap", other: "{count} gaps"},
    no_gap: "no gap",
    gap: "from {begin} to {end} nothing was recorded",
    cut_at: "The recording was cut off at {time}.",

    report: "Report",
    report_table: "What became of each recording",
    checksums: "Add SHA-256 checksums (reads every recording once)",
    print: "Print",
    save_report: "Save report…",
    stop: "Stop",
    hashed: {one: "Checksums of 1 recording were computed.", other: "Checksums of {count} recordings were computed."},
    stopped_hashing: "Stopped: checksums of {count} of {total} recordings were computed.",
    not_hashed: "No checksum: {name} cannot be read to its end, or has changed.",
    report_made: "Made on {date} with {program}; SHA-256 of this page: {sum}. The recordings were read and not changed.",
    column: {name: "Recording", what: "What it is, and its files", tracks: "Tracks", lost: "What is lost"},
    report_track: {one: "{track}: 1 frame", other: "{track}: {samples} frames, {seconds} s"},
    report_file: {
        media: "Recording: {name}, {bytes} bytes, changed {date}",
        journal: "Journal: {name}, {bytes} bytes, changed {date}",
        made: "Result: {bytes} bytes",
        sum: "SHA-256: {sum}",
        failed: "No checksum: not readable to the end, or changed",
        options: "Chosen: {options}",
        saved: "Saved as {name}",
        download_started: "Download started as {name}",
    },
    program: "libmediafiles {version}",
    licences: "Licences",
    file_name: "{stem}-recovered{ending}",
    report_name: "repair-report.txt",
};

/** The text at a path such as "lost.cut", with its values. */
export function text(path, values = {}) {
    let found = path.split(".").reduce((at, key) => at?.[key], TEXTS);
    if (found === undefined) throw new Error(`no text ${path}`);
    if (typeof found === "object") found = found[new Intl.PluralRules(TEXTS.locale).select(values.count)] ?? found.other;
    return found.replace(/\{(\w+)\}/g, (_, name) => values[name]);
}

export function number(value, digits = 0) {
    return new Intl.NumberFormat(TEXTS.locale, {maximumFractionDigits: digits}).format(value);
}

export function size(bytes) {
    const [unit, factor] = bytes < 1000 ? ["B", 1] : bytes < 1e6 ? ["kB", 1e3] : bytes < 1e9 ? ["MB", 1e6] : ["GB", 1e9];
    return text(`size.${unit}`, {n: number(bytes / factor, bytes < 1e6 ? 0 : 1), count: bytes});
}

export function duration(seconds) {
    const whole = Math.round(seconds), [h, m, s] = [Math.floor(whole / 3600), Math.floor(whole / 60) % 60, whole % 60];
    if (h) return text("duration.hours", {h, m});
    return m ? text("duration.minutes", {m, s}) : text("duration.seconds", {s: number(seconds, 1)});
}

export function date(time) {
    return new Intl.DateTimeFormat(TEXTS.locale, {dateStyle: "medium", timeStyle: "short"}).format(time);
}

/** To the second, with the time zone. */
export function exactDate(time) {
    return new Intl.DateTimeFormat(TEXTS.locale, {dateStyle: "medium", timeStyle: "long"}).format(time);
}
