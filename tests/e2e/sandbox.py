"""A machine of our own for the real programs: a private mount and pid namespace whose root is a copy of the host's.

Every absolute path in it is the real one, and nothing that is written reaches the host. The kernel releases all of it,
processes, mounts and loop devices, when the first process in it dies, however it dies.
"""

import ctypes
import errno
import os
import subprocess
import sys

INNER = "QUILLMARK_E2E_INNER"
LIBC = ctypes.CDLL(None, use_errno=True)
MNT_DETACH, UMOUNT_NOFOLLOW = 2, 8


def whats_missing():
    """Why the tests can't run here, as a sentence; None when they can."""
    if os.geteuid() != 0:
        return "They need root."
    release = os.uname().release
    if tuple(int(n) for n in release.split("-")[0].split(".")[:2]) < (6, 8):
        return f"They need Linux 6.8 or newer; this is {release}."
    with open("/proc/filesystems") as known:
        if not any(line.split()[-1] == "btrfs" for line in known):
            return "This kernel has no btrfs."
    if not os.path.exists("/dev/loop-control"):
        return "There are no loop devices here."
    tried = subprocess.run(["unshare", "--mount", "--pid", "--fork", "true"], capture_output=True, text=True)
    if tried.returncode != 0:
        return f"No namespaces can be made here: {tried.stderr.strip()}"
    return None


def run(*words, **options):
    """Runs a program of the machine; its output is part of the failure."""
    done = subprocess.run(words, capture_output=True, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: status {done.returncode}\n{done.stdout!r}\n{done.stderr!r}")
    return done.stdout


def mount(source, target, kind, flags=0, options=""):
    """mount(2), for what mount(8) would rather not do."""
    if LIBC.mount(os.fsencode(source), os.fsencode(target), os.fsencode(kind), flags, os.fsencode(options)) != 0:
        raise OSError(ctypes.get_errno(), f"mount {target}")


def unmount(target, flags=0):
    """umount2(2): asks nothing of the file system first. The number of the error, or 0."""
    return 0 if LIBC.umount2(os.fsencode(target), flags) == 0 else ctypes.get_errno()


def detach(target):
    problem = unmount(target, MNT_DETACH | UMOUNT_NOFOLLOW)
    if problem not in (0, errno.EINVAL):
        raise OSError(problem, f"umount {target}")


def enter(keep):
    """Goes on inside, by running this program anew there. The paths in `keep` are there as they are here."""
    if os.environ.get(INNER) != "1":
        os.environ[INNER] = "1"
        os.execvp("unshare", ["unshare", "--mount", "--pid", "--ipc", "--uts", "--fork", "--kill-child=KILL",
                              "--propagation", "private", "--", sys.executable, *sys.argv])
    _make_root("/mnt", keep)


def _make_root(base, keep):
    run("mount", "-t", "tmpfs", "-o", "size=8G,mode=755", "qm-e2e", base)
    for name in ("upper", "work", "root"):
        os.mkdir(f"{base}/{name}")
    root = f"{base}/root"
    run("mount", "-t", "overlay", "-o", f"lowerdir=/,upperdir={base}/upper,workdir={base}/work", "qm-e2e", root)
    for name in ("proc", "sys", "dev", "run", "tmp", "old"):
        os.makedirs(f"{root}/{name}", exist_ok=True)
    run("mount", "-t", "tmpfs", "-o", "mode=755", "qm-run", f"{root}/run")
    run("mount", "-t", "proc", "proc", f"{root}/proc")
    run("mount", "-t", "sysfs", "sysfs", f"{root}/sys")
    run("mount", "--rbind", "/dev", f"{root}/dev")
    if os.path.ismount("/usr"):
        for name in ("upper-usr", "work-usr"):
            os.mkdir(f"{base}/{name}")
        run("mount", "-t", "overlay", "-o", f"lowerdir=/usr,upperdir={base}/upper-usr,workdir={base}/work-usr", "qm-usr",
            f"{root}/usr")
    for path in {os.path.realpath(p) for p in keep}:
        os.makedirs(root + path, exist_ok=True)
        run("mount", "--bind", path, root + path)
    os.chdir(root)
    _pivot(".", "old")
    os.chdir("/")
    detach("/old")
    _forget_what_was_installed()


def _pivot(new, old):
    pivot_root = {"x86_64": 155, "aarch64": 41}[os.uname().machine]
    if LIBC.syscall(pivot_root, os.fsencode(new), os.fsencode(old)) != 0:
        raise OSError(ctypes.get_errno(), "pivot_root")


# The host's own service, if it has one, and what a quickstart left there are nothing to the one under test.
def _forget_what_was_installed():
    for path in ("/var/db/com.harrowfern.Quillmark", "/var/lib/quillmark", "/Volumes",
                 "/usr/local/lib/quillmark-quickstart"):
        subprocess.run(["rm", "-rf", "--one-file-system", path], check=True)
    for path in ("/var/log/com.harrowfern.quillmark.helper.log", "/etc/com.harrowfern.quillmark"):
        subprocess.run(["rm", "-rf", path], check=True)
    subprocess.run(["userdel", "quillmark-demo"], capture_output=True)
