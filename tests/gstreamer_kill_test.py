"""Pipelines with mediafilessink are killed: the next one in the directory completes what they left.

    gstreamer_kill_test.py --plugin FOLDER --media STREAMS
"""

import os
import re
import signal
import subprocess
import time
import unittest

from support import judge

GIVEN = judge.given("plugin", "media")
SOURCE = ("videotestsrc is-live=true ! video/x-raw,width=64,height=48,framerate=25/1 ! "
          "x264enc tune=zerolatency bframes=0 key-int-max=25 ! h264parse ! s. "
          "audiotestsrc is-live=true ! voaacenc ! s. mediafilessink name=s keep-free=0 sync-interval=100000000 ")


class KillTest(judge.Test):
    def launch(self, *options):
        """A pipeline in this directory, whose output has the messages."""
        line = ["gst-launch-1.0", "-m", *options, *SOURCE.split(), f"location={self.directory}/%03d.mp4"]
        environment = {**os.environ, "GST_PLUGIN_PATH": str(GIVEN.plugin), "G_DEBUG": "fatal-criticals",
                       "GST_REGISTRY": str(self.directory / "registry")}
        return subprocess.Popen(line, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env=environment)

    def test_kill(self):
        victim = self.launch()
        clip = self.directory / "001.mp4"
        judge.wait_for(clip.exists)
        time.sleep(2)
        victim.send_signal(signal.SIGKILL)
        victim.communicate()
        follower = self.launch("-e")
        judge.wait_for((self.directory / "002.mp4").exists)
        judge.wait_for(lambda: not clip.with_name("001.mp4.journal").exists())
        time.sleep(0.5)
        follower.send_signal(signal.SIGINT)
        said = follower.communicate(timeout=judge.PATIENCE)[0]
        self.assertEqual(follower.returncode, 0, said)
        recovered = re.search(r"mediafiles-recovered, location=\(string\)(\S+), count=\(guint64\)(\d+), .*repaired", said)
        self.assertEqual(recovered and recovered[1], str(clip), said)
        self.assertIn("mediafiles-finished", said)
        for name, seconds in (("001.mp4", 1.5), ("002.mp4", 0.1)):
            for stream in ("v", "a"):
                self.assertTrue(judge.frame_checksums(self.directory / name, stream))
            length = float(judge.run("ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0",
                                     self.directory / name))
            self.assertGreater(length, seconds, name)

    def test_description(self):
        """What gst-inspect-1.0 says names each property, with its unit."""
        said = judge.run("env", f"GST_PLUGIN_PATH={GIVEN.plugin}", f"GST_REGISTRY={self.directory}/registry",
                         "gst-inspect-1.0", "mediafilessink")
        page = (GIVEN.media.parent / "docs" / "gstreamer.md").read_text()
        for name, text in re.findall(r"^  ([a-z][a-z-]+) *: (.*)$", said, flags=re.M):
            if name in ("name", "parent"):
                continue
            self.assertIn(f"`{name}`", page)
            self.assertGreater(len(text), 40, name)


if __name__ == "__main__":
    unittest.main()
