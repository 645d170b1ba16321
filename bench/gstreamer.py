"""What is left of pipelines that are killed, and of what they have synced: the element beside splitmuxsink in four forms.

All record the same file in real time, side by side, and are killed at the same moments.
"""
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time

from measure import gst_recover, instructions
from recorders import calls_in, traced

RATE = 30                  # pictures a second of the source
SEGMENT = 10_000_000_000   # ns
MOMENTS = (7.3, 13.6, 18.9)
SECOND = 1_000_000_000
NOTHING = "nothing"        # reads the source and records nothing
OURS = "mediafilessink"
UNTIL_BEGUN = 60           # seconds, of a machine that does something else

FORMS = {
    "splitmuxsink": (),
    "with fragments": ("muxer=mp4mux fragment-duration=1000",),
    "with robust muxing": ("use-robust-muxing=true",
                           f"muxer=mp4mux reserved-max-duration={2 * SEGMENT} reserved-moov-update-period={SECOND}"),
    "with its recovery file": ("muxer=mp4mux moov-recovery-file={}/recovery",),
    OURS: None,
}


def pipeline(form, source, folder, paced):
    """From a file, as a camera delivers it: pictures as Annex B."""
    video, audio, sink = "fakesink", "fakesink", []
    if form != NOTHING:
        video, audio = "m.video", "m.audio_0"
        sink = (["mediafilessink", "keep-free=0"] if form == OURS else
                ["splitmuxsink", *(option.format(folder) for option in FORMS[form])])
        sink += ["name=m", f"location={folder}/%05d.mp4", f"max-size-time={SEGMENT}"]
    pace = ["identity", "sync=true", "silent=false", "!"] if paced else []
    return ["gst-launch-1.0", "-v" if paced else "-q", *sink, "filesrc", f"location={source}", "!", "qtdemux", "name=d",
            "d.video_0", "!", "queue", "!", "h264parse", "!", "video/x-h264,stream-format=byte-stream,alignment=au", "!",
            *pace, "h264parse", "!", video, "d.audio_0", "!", "queue", "!", *pace, "aacparse", "!", audio]


class Run:
    """A pipeline that records into a directory of its own, in real time."""

    def __init__(self, form, source, folder, is_traced):
        self.form, self.folder = form, tempfile.mkdtemp(dir=folder)
        self.log = open(os.path.join(self.folder, "log"), "w+")
        self.calls = os.path.join(self.folder, "calls")
        os.mkdir(self.calls)
        command = pipeline(form, source, self.folder, True)
        self.process = subprocess.Popen(traced(command, self.calls) if is_traced else command, stdout=self.log,
                                        stderr=subprocess.STDOUT, start_new_session=True)

    def recorded(self):
        """Seconds of pictures that have come to the sink."""
        with open(self.log.name) as log:
            found = re.findall(r"identity0.*chain.*pts: (\d+):(\d+):([\d.]+)", log.read())
        if not found:
            return 0
        hours, minutes, seconds = found[-1]
        return int(hours) * 3600 + int(minutes) * 60 + float(seconds) + 1 / RATE

    def kill(self):
        """The most bytes of memory that it had; not of one that is traced."""
        with open(f"/proc/{self.process.pid}/status") as status:
            memory = int(re.search(r"VmHWM:\s*(\d+)", status.read())[1]) * 1024
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        self.log.close()
        return memory

    def syncs(self):
        """How many, and up to where each file was synced."""
        count, ends, at, safe = 0, {}, {}, {}
        for name, arguments, path, result in calls_in(self.folder, self.calls):
            if result < 0:
                continue
            if name == "lseek":
                at[path] = result
            elif name.endswith("sync"):
                count += 1
                safe[path] = ends.get(path, 0)
            else:
                begin = int(arguments[-1]) if name.startswith("pwrite") else at.get(path, 0)
                if not name.startswith("pwrite"):
                    at[path] = begin + result
                ends[path] = max(ends.get(path, 0), begin + result)
        return count, safe

    def cut(self, safe):
        """What a medium has that keeps nothing but what was synced."""
        for name in os.listdir(self.folder):
            path = os.path.join(self.folder, name)
            if ".mp4" not in name and name != "recovery":
                continue
            if path in safe:
                os.truncate(path, min(os.path.getsize(path), safe[path]))
            else:
                os.remove(path)

    def recover(self, program):
        """By what each form has for it."""
        if self.form == OURS:
            subprocess.run([program, self.folder], stdout=subprocess.DEVNULL, check=True)
        recovery = os.path.join(self.folder, "recovery")
        names = sorted(name for name in os.listdir(self.folder) if name.endswith(".mp4"))
        if os.path.exists(recovery) and names:
            last, fixed = os.path.join(self.folder, names[-1]), os.path.join(self.folder, "fixed")
            subprocess.run(gst_recover(recovery, last, fixed), capture_output=True, check=False)
            if os.path.exists(fixed) and os.path.getsize(fixed):
                os.rename(fixed, last)

    def content(self):
        """Seconds of pictures that ffmpeg decodes, and its errors; what it cannot open is lost and no error."""
        pictures = errors = 0
        for name in sorted(os.listdir(self.folder)):
            if not name.endswith(".mp4"):
                continue
            for stream in "va":
                done = subprocess.run(["ffmpeg", "-v", "error", "-i", os.path.join(self.folder, name), "-map",
                                       f"0:{stream}", "-f", "framemd5", "-"], capture_output=True, text=True, check=False)
                frames = sum(not line.startswith("#") for line in done.stdout.splitlines())
                pictures += frames if stream == "v" else 0
                errors += len(done.stderr.splitlines()) if frames else 0
        return pictures / RATE, errors


def await_begin(runs):
    end = time.monotonic() + UNTIL_BEGUN
    while any(not run.recorded() for run in runs):
        if time.monotonic() > end:
            raise RuntimeError("bench: a pipeline does not begin")
        time.sleep(0.05)


def instructions_a_second(form, sources):
    """Of a second of media, by callgrind; sources are of a number of seconds, in their order."""
    def count(source):
        with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
            return instructions(*pipeline(form, source, folder, False))
    (short, less), (long, more) = sources
    return (count(long) - count(short)) / (more - less)


def compare(source, sources, plugins, recover, folder, quick):
    """What was found of each form at each moment."""
    os.environ["GST_PLUGIN_PATH"] = plugins
    found = {form: {"killed": [], "errors": [], "cut": [], "cut errors": [], "syncs": [], "memory": []}
             for form in (*FORMS, NOTHING)}
    for moment in MOMENTS[:1] if quick else MOMENTS:
        for is_traced in (False, True):
            runs = [Run(form, source, folder, is_traced) for form in found
                    if not (is_traced and form == NOTHING)]
            await_begin(runs)
            time.sleep(moment)
            memory = [run.kill() for run in runs]
            for run, bytes_ in zip(runs, memory):
                if not is_traced:
                    found[run.form]["memory"].append(bytes_)
                if run.form != NOTHING:
                    judge(run, found[run.form], recover, is_traced)
                shutil.rmtree(run.folder)
    for form in found:
        found[form]["instructions"] = [instructions_a_second(form, sources)]
    return found


def judge(run, to, recover, is_traced):
    recorded = run.recorded()
    if is_traced:
        count, safe = run.syncs()
        to["syncs"].append(count / recorded)
        run.cut(safe)
    run.recover(recover)
    seconds, errors = run.content()
    to["cut" if is_traced else "killed"].append(recorded - seconds)
    to["cut errors" if is_traced else "errors"].append(errors)


def markdown(found):
    def mean(form, what):
        return sum(found[form][what]) / len(found[form][what])
    lines = ["| | killed: seconds lost | decode errors | cut: seconds lost | decode errors | syncs a second "
             "| million instructions a second | memory, MB |", "|---" + "|---:" * 7 + "|"]
    for form in FORMS:
        lines.append(f"| {form} | {mean(form, 'killed'):.1f} | {mean(form, 'errors'):.0f} | {mean(form, 'cut'):.1f} "
                     f"| {mean(form, 'cut errors'):.0f} | {mean(form, 'syncs'):.1f} "
                     f"| {(mean(form, 'instructions') - mean(NOTHING, 'instructions')) / 1e6:.1f} "
                     f"| {(mean(form, 'memory') - mean(NOTHING, 'memory')) / 1e6:.1f} |")
    return "\n".join(lines) + "\n"
