"""Guests: a Debian kernel under QEMU, with an initramfs that holds its modules, busybox and the programs under test."""

import functools
import hashlib
import lzma
import pathlib
import re
import shutil
import subprocess
from collections import namedtuple

HERE = pathlib.Path(__file__).resolve().parent
MODULES = {"ext4": ("ext4", "crc32c_generic"), "vfat": ("vfat", "nls_cp437", "nls_ascii", "nls_utf8"),
           "exfat": ("exfat", "nls_utf8"), "f2fs": ("f2fs", "crc32_generic")}
XZ = b"\xfd7zXZ\0"
FUNCTIONS = 8  # of a PCI device
QUICK = "no_timer_check rodata=off cryptomgr.notests mitigations=off"  # of a kernel that need not be safe from anybody

Machine = namedtuple("Machine", "architecture kernel programs qemu console")
MACHINES = {
    "x86-64": Machine("amd64", "linux-image-amd64", "device", ("qemu-system-x86_64", "-accel", "tcg"),
                      "ttyS0"),
    "arm": Machine("armhf", "linux-image-armmp", "device-arm",
                   ("qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15"), "ttyAMA0"),
}
Disk = namedtuple("Disk", "path serial log", defaults=(None,))


class GuestError(Exception):
    """A guest did not do what it was booted for."""


def newc(entries):
    """A cpio archive as the kernel unpacks it: (name, mode, content)."""
    out = bytearray()
    for number, (name, mode, content) in enumerate([*entries, ("TRAILER!!!", 0, b"")]):
        fields = (number, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(name) + 1, 0)
        out += b"070701" + b"".join(b"%08x" % field for field in fields) + name.encode() + b"\0"
        out += bytes(-len(out) % 4) + content
        out += bytes(-len(out) % 4)
    return bytes(out)


def fetch(machine, directory):
    """The packages of a guest's architecture, through lists of their own: those of this machine stay as they are."""
    for name in ("lists/partial", "cache/archives/partial"):
        (directory / name).mkdir(parents=True, exist_ok=True)
    (directory / "status").touch()
    etc = pathlib.Path("/etc/apt")
    sources = next(path for path in (etc / "sources.list.d/debian.sources", etc / "sources.list") if path.exists())
    settings = {"APT::Architecture": machine.architecture, "APT::Architectures": machine.architecture,
                "Dir::State": directory, "Dir::State::status": directory / "status", "Dir::Cache": directory / "cache",
                "Dir::Etc::sourcelist": sources, "Dir::Etc::sourceparts": "/dev/null", "APT::Sandbox::User": "root"}
    options = [part for name, value in settings.items() for part in ("-o", f"{name}={value}")]
    subprocess.run(["apt-get", *options, "-qq", "update"], check=False)
    depends = subprocess.run(["apt-cache", *options, "depends", machine.kernel], check=True, capture_output=True,
                             text=True).stdout
    kernel = re.search(r"Depends: (linux-image-\S+)", depends)[1]
    subprocess.run(["apt-get", *options, "-qq", "download", kernel, "busybox-static"], check=True, cwd=directory)


def unpack(machine, directory):
    """Kernel, modules and busybox of the architecture."""
    root = directory / "root"
    if not root.exists():
        shutil.rmtree(directory, ignore_errors=True)
        fetch(machine, directory)
        for package in directory.glob("*.deb"):
            subprocess.run(["dpkg-deb", "-x", package, directory / "unpacking"], check=True)
        modules = next((directory / "unpacking/lib/modules").iterdir())
        subprocess.run(["depmod", "-b", directory / "unpacking", modules.name], check=True)
        (directory / "unpacking").rename(root)
    return root


def unpacked(kernel):
    """The kernel as QEMU can start it without its own unpacking, which takes longer than all else of a boot."""
    plain = kernel.with_name("vmlinux")
    if not plain.exists():
        data = kernel.read_bytes()
        plain.write_bytes(lzma.LZMADecompressor().decompress(data[data.index(XZ):]))
    return plain


def modules_of(root, system):
    """The modules' files in the order in which they are loaded. What is built into the kernel is left out."""
    directory = next((root / "lib/modules").iterdir())
    depends = {}
    for line in (directory / "modules.dep").read_text().splitlines():
        path, needs = line.split(":")
        depends[path] = needs.split()
    paths = {pathlib.Path(path).stem: path for path in depends}
    order = []
    for name in ("virtio_pci", "virtio_blk", *MODULES[system]):
        if name in paths:
            order += [path for path in [*reversed(depends[paths[name]]), paths[name]] if path not in order]
    return [directory / path for path in order]


class Guests:
    """
    What the guests of one architecture share. `built` has a folder of programs for each, by its CMake preset.

    With a fault the recorder has that one (faults.c).
    """

    def __init__(self, name, built, work, fault=""):
        self.machine = MACHINES[name]
        self.name, self.work, self.fault = name, work / name, fault
        self.root = unpack(self.machine, self.work / "packages")
        self.kernel = next((self.root / "boot").glob("vmlinuz-*"))
        if name == "x86-64":
            self.kernel = unpacked(self.kernel)
        self.built = built / self.machine.programs
        programs = self.built / "device"
        self.programs = {"busybox": self.root / "bin/busybox", "recover": programs / "device-recover",
                         "dashcam": programs / ("device-faulty" if fault else "device-dashcam")}

    @functools.cached_property
    def digest(self):
        """Of what runs in the guests."""
        paths = (HERE / "init", self.programs["dashcam"], self.programs["recover"])
        return hashlib.sha256(b"".join(path.read_bytes() for path in paths)).hexdigest()[:8] + self.fault

    def command(self):
        """The files of the command, and of the notes that go with it."""
        command = self.built / "tools/mediafiles"
        said = subprocess.run(["ldd", command], check=True, capture_output=True, text=True).stdout
        libraries = re.findall(r"(?:=> |^\t)(/\S+)", said, re.M)
        return {"bin/mediafiles": command.read_bytes(), "lib/notes.so": (self.built / "device/libdevice-notes.so").read_bytes(),
                **{path[1:]: pathlib.Path(path).read_bytes() for path in libraries}}

    def initramfs(self, system, files, at):
        """Packs it for cards with that file system, with further files: {name: content}."""
        loaded = modules_of(self.root, system)
        entries = [("init", 0o100755, (HERE / "init").read_bytes()), ("bin", 0o040755, b""), ("modules", 0o040755, b"")]
        entries += [(f"bin/{name}", 0o100755, path.read_bytes()) for name, path in self.programs.items()]
        entries += [(f"modules/{path.name}", 0o100644, path.read_bytes()) for path in loaded]
        entries.append(("modules/order", 0o100644, "".join(path.name + "\n" for path in loaded).encode()))
        for folder in sorted({str(parent) for name in files for parent in pathlib.PurePath(name).parents} - {"."}):
            entries.append((folder, 0o040755, b""))
        entries += [(name, 0o100755, content) for name, content in files.items()]
        at.write_bytes(newc(entries))
        return at

    def start(self, task, disks, initramfs, console, **variables):
        """QEMU. The disks are written without syncs of this machine, those with a log below it as well."""
        nodes, devices = [], []
        for number, disk in enumerate(disks):
            image = f"driver=raw,node-name={disk.serial},discard=ignore"
            if disk.log:
                image = f"driver=blklogwrites,node-name={disk.serial}"
                for name, path in (("file", disk.path), ("log", disk.log)):
                    image += f",{name}.driver=raw,{name}.cache.no-flush=on"
                    image += f",{name}.file.driver=file,{name}.file.filename={path}"
            else:
                image += f",file.driver=file,file.filename={disk.path},cache.no-flush=on"
            nodes += ["-blockdev", image]
            place = f"{2 + number // FUNCTIONS:x}.{number % FUNCTIONS}"
            devices += ["-device", f"virtio-blk-pci,drive={disk.serial},serial={disk.serial},discard=off,"
                        f"write-zeroes=off,addr={place},multifunction=on,num-queues=1"]
        words = {"console": self.machine.console, "panic": "-1", "loglevel": "4", "TASK": task, "FAULT": self.fault,
                 **variables}
        line = f"{QUICK} " + " ".join(f"{name}={value}" for name, value in words.items())
        command = [*self.machine.qemu, "-m", "768", "-nodefaults", "-no-reboot", "-display", "none",
                   "-serial", f"file:{console}", "-kernel", self.kernel, "-initrd", initramfs,
                   "-append", line, *nodes, *devices]
        return subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL)

    def run(self, *arguments, patience=3000, **variables):
        """Boots a guest and waits until it has switched itself off."""
        process = self.start(*arguments, **variables)
        try:
            if process.wait(patience) != 0:
                raise GuestError(f"{arguments[0]}: QEMU ended with {process.returncode}")
        except subprocess.TimeoutExpired as late:
            raise GuestError(f"{arguments[0]}: the guest did not end") from late
        finally:
            process.kill()
            process.wait()
