#include "quill/HelpTexts.h"

namespace quillmark::cli::HelpTexts {

const std::string_view volumeOption =
    "The volume: a name, UUID, device, or any path on it; else where you stand, or the only one there is";

const HelpEntry program{"quill", "Snapshots of btrfs volumes: take them, look into them, delete them.",
                        R"help(
Examples:
  quill volumes                       what is there
  quill create "before upgrade"       a snapshot of the volume you stand on
  quill list                          its snapshots, the newest last
  cd "$(quill mount latest)"          look into the newest one
  quill unmount latest
  quill delete latest~3               the third before the newest

A SNAPSHOT is named by its full name, its XID, its label, the end of its name
from a dot on, "latest", or "latest~N": the N-th before the newest.

On a terminal tables have a head line and aligned columns. Anywhere else each
row is one line of words, one blank apart: a blank within a word is \x20, an
empty word is "-", and names are whole. --json gives exact values.

Exit codes: 0 done, 1 failed, 2 wrong use or malformed, 3 helper not reachable,
4 refused. Done with a warning is 0 and a line on standard error.)help"};

const HelpEntry volumes{"volumes", "List the volumes of this machine with their space and devices",
                        R"help(
Columns: name, device, size, used, free, bus, mount point, UUID. Sizes are
bytes where they aren't shown on a terminal. The helper isn't needed.

Examples:
  quill volumes
  quill volumes --json | jq -r '.[].id')help"};

const HelpEntry list{"list", "List the snapshots of a volume, the newest last",
                     R"help(
Columns: name, XID, time of creation, flags, and sizes where they are known.
A terminal shows a snapshot's label in place of its name where it has one, and
names of our own without "com.harrowfern.Quillmark.". Times are local.
Flags: protected, auto-protected, indexed, tag=TEXT.

Examples:
  quill list
  quill list -v Data
  quill list -v /home | awk '{print $2}'      the XIDs)help"};

const HelpEntry create{"create", "Take a snapshot and print its name",
                       R"help(
The label may have up to 127 bytes, without slashes and control characters.

Examples:
  quill create
  quill create "before upgrade" -v Data)help"};

const HelpEntry remove{"delete", "Delete snapshots and print their names",
                       R"help(
All references are read from one listing before anything is deleted. One that
fails doesn't keep the others; the exit code is then the highest of all.

Examples:
  quill delete before-upgrade
  quill delete latest latest~1 -v Data
  quill delete 4587521 --force               also if it is protected)help"};

const HelpEntry mount{"mount", "Mount a snapshot for reading and print the path",
                      R"help(
A snapshot that is mounted already stays so, and its path is printed.

Examples:
  ls "$(quill mount latest)"
  quill mount before-upgrade -v Data)help"};

const HelpEntry unmount{"unmount", "Unmount a snapshot and print the path",
                        R"help(
What holds a "/" is taken as the path of the mount.

Examples:
  quill unmount latest
  quill unmount /Volumes/Data-2f6c…@snap-4587521)help"};

const HelpEntry health{"health", "Show how the helper's parts are", R"help(
States: healthy, degraded, unavailable. The exit code is 0 whatever they are.

Example:
  quill health --json | jq -r .scheduler.state)help"};

const HelpEntry version{"version", "Show the versions of quill and of the running helper", R"help(
Fails where the two speak different protocols.

Example:
  quill version)help"};

const HelpEntry call{"call", "Make any call of the helper and print its value",
                     R"help(
Each argument is JSON text: true, 17, null, '"text"', '["a","b"]'. One that
begins with "-" and a letter comes behind "--". Strings and numbers are printed
bare, nothing for null, all else as JSON; with --json everything as JSON.

Examples:
  quill call protocolVersionWithReply:
  quill call getScheduleForVolume:reply: '"2f6c0c4e-…"'
  quill call createSnapshotOnVolume:label:reply: '"2f6c0c4e-…"' '"by hand"')help"};

}  // namespace quillmark::cli::HelpTexts
