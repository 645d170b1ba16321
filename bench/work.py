"""The work: sets of coded frames, made once. work.h says what a set's file holds."""
import os
import re
import struct
import subprocess

VIDEO_FRAMES, AUDIO_FRAMES, PERIOD_NS = 240, 375, 8_000_000_000
SET_FRAMES = VIDEO_FRAMES + AUDIO_FRAMES
SET_SECONDS = PERIOD_NS // 1_000_000_000
H264, H265 = 0x101, 0x102
ADTS_HEADER = 7  # bytes, which no file has


def encode(folder, name, *arguments):
    path, part = os.path.join(folder, name), os.path.join(folder, "part-" + name)
    if not os.path.exists(path):
        subprocess.run(["ffmpeg", "-v", "error", "-y", *arguments, part], check=True)
        os.rename(part, path)
    with open(path, "rb") as stream:
        return stream.read()


def encode_video(folder, name, rate, *codec):
    return encode(folder, name, "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=30,noise=alls=12:allf=t",
                  "-frames:v", str(VIDEO_FRAMES), "-pix_fmt", "yuv420p",
                  "-b:v", rate, "-maxrate", rate, "-bufsize", rate, *codec)


def nal_units(stream):
    """The NAL units, each with the length of the start code before it."""
    codes = list(re.finditer(b"\0?\0\0\1", stream))
    ends = [code.start() for code in codes[1:]] + [len(stream)]
    return [(code.end() - code.start(), stream[code.end():end]) for code, end in zip(codes, ends)]


def access_units(stream, key_of, rewrite=lambda nal: nal):
    """Access units with one slice each, their last NAL unit; key_of gives a slice's key flag, and None of others."""
    units, unit = [], b""
    for code, nal in nal_units(stream):
        key = key_of(nal)
        unit += b"\0" * (code - 1) + b"\1" + (nal if key is None else rewrite(nal))
        if key is not None:
            units.append((unit, key))
            unit = b""
    assert len(units) == VIDEO_FRAMES
    return units


def h264_key(nal):
    return {1: False, 5: True}.get(nal[0] & 31)


def h265_key(nal):
    return {1: False, 19: True, 20: True}.get(nal[0] >> 1)


def cut(nal):
    return nal[:max(16, len(nal) // 16)]


def as_trail_n(nal):
    return bytes([nal[0] & 0x81]) + nal[1:] if nal[0] >> 1 == 1 else nal


def adts_frames(stream):
    frames, at = [], 0
    while at < len(stream) and len(frames) < AUDIO_FRAMES:
        length = (stream[at + 3] & 3) << 11 | stream[at + 4] << 3 | stream[at + 5] >> 5
        frames.append((stream[at:at + length], True))
        at += length
    assert len(frames) == AUDIO_FRAMES
    return frames


class Set:
    """The frames of both tracks in the order of their times."""

    def __init__(self, folder, name, codec, video, audio):
        self.path = os.path.join(folder, name + ".work")
        frames = [(i * 1_000_000_000 // 30, 0, *frame) for i, frame in enumerate(video)]
        frames += [(i * 1024 * 1_000_000_000 // 48000, 1, *frame) for i, frame in enumerate(audio)]
        frames.sort(key=lambda frame: frame[:2])
        self.bytes = sum(len(data) for _, _, data, _ in frames)
        self.media_bytes = self.bytes - ADTS_HEADER * len(audio)

        first = video[0][0]
        header = struct.pack("<IIQII", codec, len(frames), PERIOD_NS, first.index(nal_units(first)[-1][1]) - 4, 0)
        offset, table = len(header) + 24 * len(frames), b""
        for time, track, data, key in frames:
            table += struct.pack("<IIIIQ", offset, len(data), track, key, time)
            offset += len(data)
        with open(self.path, "wb") as out:
            out.write(header + table + b"".join(data for _, _, data, _ in frames))


def make_sets(folder):
    os.makedirs(folder, exist_ok=True)
    x264 = ("-c:v", "libx264", "-preset", "veryfast",
            "-bf", "0", "-g", "30", "-keyint_min", "30", "-sc_threshold", "0")
    h264 = encode_video(folder, "video.h264", "4M", *x264)
    h264_8m = encode_video(folder, "video-8m.h264", "8M", *x264)
    h265 = encode_video(folder, "video.h265", "4M", "-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                        "bframes=0:keyint=30:min-keyint=30:scenecut=0:open-gop=0:repeat-headers=1:info=0:"
                        "log-level=error")
    audio = adts_frames(encode(folder, "audio.aac", "-f", "lavfi", "-i",
                               "anoisesrc=r=48000:a=0.3:c=pink:s=1,aformat=channel_layouts=stereo",
                               "-t", "9", "-c:a", "aac", "-b:a", "128k", "-f", "adts"))
    return {
        "full": Set(folder, "full", H264, access_units(h264, h264_key), audio),
        "8m": Set(folder, "8m", H264, access_units(h264_8m, h264_key), audio),
        "small": Set(folder, "small", H264, access_units(h264, h264_key, cut), audio),
        "h265-type1": Set(folder, "h265-type1", H265, access_units(h265, h265_key), audio),
        "h265-type0": Set(folder, "h265-type0", H265, access_units(h265, h265_key, as_trail_n), audio),
    }
