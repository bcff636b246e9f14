#include "quill/HelpTexts.h"

namespace quillmark::cli::HelpTexts {

const std::string_view volumeOption =
    "The volume: a name, UUID, device, or any path on it; else where you stand, or the only one there is";
const std::string_view logVolumeOption =
    "Only what happened on this volume: a name, UUID, device or path; also one that is gone, by name or UUID";

const HelpEntry program{"quill", "Snapshots of btrfs volumes: take them, look into them, keep or delete them.",
                        R"help(
Examples:
  quill volumes                       what is there
  quill create "before upgrade"       a snapshot of the volume you stand on
  quill list                          its snapshots, the newest last
  cd "$(quill mount latest)"          look into the newest one
  quill unmount latest
  quill protect before-upgrade        nobody deletes it by accident
  quill delete latest~3               the third before the newest
  quill log -n 5                      what was done last, and by whom
  quill index                         what is indexed
  quill diff latest~1 latest          what changed between the last two

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
bytes where they aren't shown on a terminal. The helper isn't needed; where it
runs, a terminal also shows which subvolumes no snapshot holds, and snapshots
whose volume is gone, with what to do. With --json: "unservedSubvolumes".

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
The label may have up to 127 bytes, without slashes and control characters. The
helper indexes the snapshot afterwards by itself; --wait-index waits for that.

Examples:
  quill create
  quill create --wait-index "before upgrade"
  quill create "before upgrade" -v Data)help"};

const HelpEntry safety{"safety", "Take a safety snapshot, for the time of a risky work, and print its name",
                       R"help(
As create, but with a name that says that the snapshot may go once it is old:
whatever prunes old snapshots may take it. To keep it: quill protect.

Examples:
  quill safety
  quill safety "moving the photographs" -v Data)help"};

const HelpEntry index{"index", "Show what is indexed, or index snapshots anew",
                      R"help(
quill index                          what is indexed, of all volumes or of -v
quill index snapshot SNAPSHOT        reads one snapshot anew: the newest that is
                                     indexed, or one that is newer
quill index rebuild [VOLUME|--all]   throws the index of a volume away and reads
                                     all its snapshots, the oldest first

The index is what comparing, browsing and searching old states go by. It is made
from the snapshots by itself, grows with what changes, and nothing is lost by a
rebuild but time. Both show how it goes on. Interrupted, quill ends with exit
code 130 and the helper goes on.

Columns: volume, state (current, indexing, waiting, partial, off, untracked,
empty, unavailable), snapshots, how many of them are indexed, how many wait, UUID
where no terminal shows it, detail. "partial": some are older than what is
indexed and can't join; a rebuild takes them in.

Examples:
  quill index
  quill index snapshot latest
  quill index rebuild -v Data)help"};

const HelpEntry diff{"diff", "Show what changed between two snapshots, or what two directories differ in",
                     R"help(
The older snapshot is always the state before. What is indexed is compared in a
moment; what isn't is indexed, or read for this once. Paths are those within the
volume, by name. Left out is what the settings exclude, unless --full-scan is
given: that reads both snapshots whole.

Signs: + added, - deleted, ~ modified, ↻ replaced (another kind of thing with
the same name), > moved. On a terminal long output is paged (PAGER, LESS).
Anywhere else each line has 8 words: kind, type, path, old path, old size, new
size, old and new time of modification in nanoseconds since 1970; --stat has 3:
kind, changes, bytes by which files grew. With --json: rows, treeEntries,
truncated, totalRowCount. At most 250,000 rows come.

--subtree takes a path as it is on the volume now, or was, and tells what the
index knows of it: you must be able to read it. --local compares two paths of
this machine as they are, you must be able to read both; directories of mounted
snapshots too.

Examples:
  quill diff latest~1 latest
  quill diff before-upgrade latest --stat
  quill diff 4587521 latest --kind deleted --name-only
  quill diff latest~3 latest --subtree ~/letters
  quill diff --local "$(quill mount latest)/ida" /home/ida)help"};

const HelpEntry remove{"delete", "Delete snapshots and print their names",
                       R"help(
Where a person sits at the terminal it names them and asks first, unless --yes
is given. Without a terminal, as in scripts, it asks nobody and goes ahead.

A protected snapshot is refused with exit code 4, and it is said what protects
it: somebody did (quill unprotect takes that back), or it was made by another
program on a volume that protects such. --force deletes both kinds. What the
operating system keeps for itself is never deleted.

All references are read from one listing before anything is deleted. One that
fails doesn't keep the others; the exit code is then the highest of all.

Examples:
  quill delete before-upgrade
  quill delete latest latest~1 -v Data
  quill delete --yes 4587521
  quill delete --force 4587521               also if it is protected)help"};

const HelpEntry protect{"protect", "Protect snapshots against deletion and print their names",
                        R"help(
Nothing deletes a protected snapshot, neither quill delete without --force nor
what prunes old ones. One that is protected already stays so.

Examples:
  quill protect before-upgrade
  quill protect latest latest~1 -v Data)help"};

const HelpEntry unprotect{"unprotect", "Take the protection of snapshots away and print their names",
                          R"help(
It takes away what quill protect did. That the snapshots of other programs are
protected ("auto-protected" in quill list) is a setting of the volume, and
stays.

Examples:
  quill unprotect before-upgrade)help"};

const HelpEntry tag{"tag", "Show, set or clear the tag of a snapshot",
                    R"help(
With a TEXT it is set, in place of the one before, and the snapshot's name is
printed; with --clear, or an empty TEXT, it is taken away. Without either it is
printed, and nothing where there is none. A tag has up to 8192 bytes.

Examples:
  quill tag latest "tests passed"
  quill tag latest
  quill tag latest --clear)help"};

const HelpEntry mount{"mount", "Mount snapshots for reading and print their paths",
                      R"help(
A snapshot that is mounted already stays so, and its path is printed. One of
several that fails doesn't keep the others; the exit code is then the highest.

Examples:
  ls "$(quill mount latest)"
  quill mount before-upgrade -v Data
  quill mount latest latest~1)help"};

const HelpEntry unmount{"unmount", "Unmount snapshots and print their paths",
                        R"help(
What holds a "/" is taken as the path of the mount. One of several that fails
doesn't keep the others; the exit code is then the highest. A mount that a
window or an operation is using is refused with exit code 4.

Examples:
  quill unmount latest
  quill unmount latest latest~1
  quill unmount /Volumes/Data-2f6c…@snap-4587521)help"};

const HelpEntry log{"log", "Show what was done to snapshots, when and by whom, the newest last",
                    R"help(
Reads the helper's activity log, which any user may; the helper isn't needed.
The helper keeps the last 32 MiB or more, years for most.

On a terminal: the time, the event, who asked (and with which program if it
wasn't quill), volume, snapshot, more detail; why something failed stands
below it, and on one of less than 100 columns the snapshot too.
Anywhere else each line has 11 words: time, kind, "ok" or "failed", client,
user, volume, volume's UUID, snapshot, milliseconds, detail, error. With --json
each line is a record.

KIND: create, delete, mount, unmount, compare, index, protect, tag, restore,
alarm; several with commas between, or by giving the option again.
TIME: 2h (so long ago; s, min, h, d, w), today, yesterday, 09:15, 2026-03-01,
"2026-03-01 09:15", with "Z" or "+01:00" behind it where it isn't local.
--cursor keeps in FILE how far was read, for the next time; the file is made
when it isn't there. --follow ends at an interrupt, or when nobody reads on,
with exit code 0.

Examples:
  quill log -n 20
  quill log --since yesterday --failed
  quill log --kind delete,protect -v Data
  quill log --follow --lines 0
  quill log --json --cursor ~/.quill-seen | jq -r .detail)help"};

const HelpEntry schedule{"schedule", "Show or change what is snapshotted by itself, and how many are kept",
                         R"help(
quill schedule                  the schedules of all volumes
quill schedule -v VOLUME        all of one
quill schedule on|off|set ...   changes it, and shows what was stored

Cadences: freq (every quarter of an hour, keeps up to 4), hourly (24),
daily (7), weekly (4), monthly (12). A snapshot of a cadence beyond the count
is deleted, the oldest first; one that is protected never, and it isn't counted.
A volume without a schedule begins with the usual one: freq, hourly and daily.

--low-space lets old snapshots go, of any kind, where less than
--low-space-bytes are free: 5GB or more, also as 28GiB or in bytes.
--protect-foreign keeps the snapshots of other programs out of that.
--tracked off leaves the volume out of everything that happens by itself.

Columns: setting, state, how many are kept (or the bytes), off since when.

Examples:
  quill schedule on -v Data
  quill schedule set --enable weekly --keep hourly=12,weekly=4
  quill schedule set --disable freq --low-space-bytes 50GB -v Data
  quill schedule off
  quill plan                                  what that comes to)help"};

const HelpEntry settings{"settings", "Show or change the helper's settings, which are the same for all volumes",
                         R"help(
quill settings                    all of them; --full cuts no list
quill settings get KEY            one; of a list each entry on a line
quill settings set KEY VALUE...   several values for a list, [] for an empty one
quill settings edit -             what a JSON object on standard input names

What isn't named stays as it is. It is shown what was stored. quill starts no
editor: it runs with a right of its own, which no other program shall have.

Examples:
  quill settings set automaticDeletionEnabled false   nothing is deleted by itself
  quill settings set safetySnapshotRetentionHours 72
  quill settings set monitoredPaths /home/ida/letters /srv
  quill settings --json >s.json; vi s.json; quill settings edit - <s.json)help"};

const HelpEntry plan{"plan", "Show when each snapshot of a volume will go by itself, and what goes next",
                     R"help(
It deletes nothing. That of a snapshot which a schedule takes and counts is a
forecast. The words of the last column: "count", beyond what the schedule keeps
of its kind; "lifespan", its time is over.

Columns: name, XID, kind, end (a time, or never, whenSpaceLow, external,
unknown), why the scheduler's next pass deletes it.

Examples:
  quill plan
  quill plan -v Data
  quill plan --json | jq -r '.[] | select(.removal != "none") | .name')help"};

const HelpEntry space{"space", "Show the free space of the volumes, as the helper measured it last",
                      R"help(
Columns: volume, size, free space, the least that shall be free, state (enough,
near, low), when old snapshots may go for it next, when the volume was first
seen on this machine, UUID. Sizes are bytes where no terminal shows them, and in
powers of 1000 where one does. The minimum is set by: quill schedule set

Example:
  quill space)help"};

const HelpEntry notices{"notices", "Show what the helper told people, the newest last",
                        R"help(
Reads the helper's notification log, which any user may; the helper isn't
needed. What told of the end of a condition is a "resolve".

On a terminal: time, category, volume, title, and the message below. Anywhere
else each line has 8 words: time, kind (post, resolve), category, importance,
volume, volume's UUID, title, message. With --json each line is a record.
--since, --cursor and --follow are as of quill log.

Examples:
  quill notices -n 5
  quill notices --critical --since 1w
  quill notices --follow --lines 0)help"};

const HelpEntry watch{"watch", "Show what the helper tells as it happens, until interrupted",
                      R"help(
Columns: time, event (snapshots, schedule, free-space, sizes, index, alarm,
notice), volume, its UUID where no terminal shows it, detail. With --json each
line is the message as it came: {"method":...,"params":[...]}.
Ends at an interrupt, or when nobody reads on, with exit code 0; with 3 when
the helper ends.

Examples:
  quill watch
  quill watch --json | jq -c 'select(.method | startswith("snapshotsChanged"))')help"};

const HelpEntry health{"health", "Show how the helper's parts are", R"help(
States: healthy, degraded, unavailable. The exit code is 0 whatever they are.
Below them stands what else an administrator should know, and how many records
of the activity log couldn't be written since the helper started.

Example:
  quill health --json | jq -r .scheduler.state)help"};

const HelpEntry quit{"quit", "Ask the helper to finish what it has begun and to quit",
                     R"help(
It goes on answering meanwhile but begins nothing new, and ends in a minute at
the latest. Where the machine's service manager keeps it running, it starts it
anew. The exit code is 0 too where it was already quitting.

Example:
  quill quit)help"};

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
