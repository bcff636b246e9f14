// Trees of a real btrfs, read both ways: against each other and against what find(1) says.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

#include "BtrfsMachine.h"
#include "base/Error.h"
#include "history/SnapshotScanner.h"
#include "platform/NameText.h"
#include "platform/contract/DirectoryReaderSuite.h"
#include "platform/linux/DirectoryReader.h"

namespace quillmark {
namespace {

std::string quoted(const std::string& path) {
  std::string text = "'";
  for (const char c : path) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

class BtrfsTrees {
 public:
  DirectoryReader& reader() { return reader_; }
  [[nodiscard]] std::string root() const { return machine.volume; }
  void makeDirectory(const std::string& path) { machine.shell("mkdir -p " + at(path)); }
  void write(const std::string& path, std::size_t size) {
    const UniqueFd file(
        ::open((machine.volume + nameBytes(path)).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    const std::string bytes(size, 'x');
    ASSERT_EQ(::write(file.get(), bytes.data(), size), static_cast<ssize_t>(size)) << path;
  }
  void makeLink(const std::string& path) { machine.shell("ln -s nowhere " + at(path)); }
  void link(const std::string& from, const std::string& to) { machine.shell("ln " + at(from) + " " + at(to)); }
  void rename(const std::string& from, const std::string& to) { machine.shell("mv " + at(from) + " " + at(to)); }
  void remove(const std::string& path) { machine.shell("rm -r " + at(path)); }
  [[nodiscard]] std::optional<std::string> frozen() {
    const std::string path = machine.top + "/frozen " + std::to_string(++frozen_);
    machine.shell("btrfs -q subvolume snapshot -r " + machine.volume + " " + quoted(path));
    return path;
  }

  os::BtrfsMachine machine;

 private:
  [[nodiscard]] std::string at(const std::string& path) const { return quoted(machine.volume + nameBytes(path)); }

  os::LinuxDirectoryReader reader_;
  int frozen_ = 0;
};

// What find says, for what it can say: type, size, time of change, mode and owner.
struct Told {
  char type;
  std::int64_t size, mtimeNS;
  unsigned mode, uid, gid;
  bool operator==(const Told&) const = default;
};
void PrintTo(const Told& told, std::ostream* out) {
  *out << told.type << " " << told.size << " " << told.mtimeNS << " " << std::oct << told.mode << std::dec << " "
       << told.uid << ":" << told.gid;
}

std::map<std::string, Told> findTells(os::BtrfsMachine& machine, const std::string& root) {
  std::istringstream text(machine.shell("cd " + quoted(root) + " && find . -printf '%y %s %T@ %m %U %G %P\\0'"));
  std::map<std::string, Told> all;
  for (std::string line; std::getline(text, line, '\0');) {
    std::istringstream fields(line);
    Told told{};
    std::string time, path;
    fields >> told.type >> told.size >> time >> std::oct >> told.mode >> std::dec >> told.uid >> told.gid;
    std::getline(fields.ignore(1), path, '\0');
    const std::size_t dot = time.find('.');
    told.mtimeNS = std::stoll(time.substr(0, dot)) * 1'000'000'000 + std::stoll(time.substr(dot + 1, 9));
    all.emplace(path.empty() ? path : "/" + nameText(path), told);
  }
  return all;
}

Told toldOf(const FileFacts& facts) {
  constexpr char letters[] = {'f', 'd', 'l', '?'};
  return {letters[static_cast<int>(facts.type)], facts.size, facts.mtimeNS, facts.mode, facts.uid, facts.gid};
}

// All that a tree can hold and a reader can get wrong.
void makeHardTree(os::BtrfsMachine& machine) {
  machine.shell("cd " + machine.volume + R"sh(
    mkdir plain 'with space' $'new\nline' $'byte-\xff' $'\xf4\x8e\xbc\x80' "$(printf 'd%.0s' $(seq 255))"
    for byte in $(seq 1 255); do [ $byte = 47 ] || touch "$(printf "plain/x\\x$(printf %x $byte)y")"; done
    # One file by so many long names that they don't fit into one item, in two directories.
    echo linked > plain/first
    for i in $(seq 1 400); do ln plain/first "with space/a long name for a link, number $i $(printf 'l%.0s' $(seq 150))"; done
    for i in $(seq 1 50); do ln plain/first plain/$i; done
    # Content within the metadata, beside it, in many pieces, preallocated, with holes, all hole, compressed, and none.
    mkdir files; cd files
    echo inline > inline; head -c 300000 /dev/urandom > large; touch empty
    fallocate -l 1M preallocated; touch reserved; fallocate -n -l 1M reserved; truncate -s 10M hole; truncate -s 1M sparse
    for i in 1 3 5 7; do echo piece | dd of=sparse bs=4096 seek=$((i * 20)) conv=notrunc status=none; sync -f .; done
    head -c 100000 /dev/zero > grown; sync -f .; echo more >> grown
    cp --reflink=always large cloned
    mkdir compressed; btrfs property set compressed compression zstd; head -c 500000 /dev/zero > compressed/zeroes
    ln -s target link; ln -s "$(printf 't%.0s' $(seq 4000))" 'long link'; ln -s /nowhere dangling
    mkfifo fifo; mknod block b 7 99; mknod character c 1 3; python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind("socket")'
    chmod 6751 large; chmod 1777 compressed; chown 1234:4321 inline; chmod 0 empty
    python3 -c 'import os; os.setxattr("inline", "user.small", b"v"); os.setxattr("inline", "user.large", b"v" * 3000)'
    chattr +i large; chattr +a grown; chattr +d hole; chattr +d compressed
    touch -d '1950-01-01 00:00:00.123456789' old; touch -d '2200-01-01' future
    cd ..
    mkdir moved; echo 1 > moved/a; mv moved plain/moved; mv plain/moved/a plain/moved/b
    rm plain/7; rmdir $'byte-\xff'; touch $'byte-\xff'
    mkdir -p deep/down; btrfs -q subvolume create nested; touch nested/inside; btrfs -q subvolume create deep/down/nested
    btrfs -q subvolume create gone; btrfs -q subvolume snapshot -r nested deep/frozen
    ( p=.; for i in $(seq 1 40); do n=$(printf "$i-%.0s" $(seq 60)); mkdir "$n"; cd "$n"; touch leaf; done )
  )sh");
}

}  // namespace

namespace contract {
INSTANTIATE_TYPED_TEST_SUITE_P(Btrfs, DirectoryReaderSuite, BtrfsTrees);
}  // namespace contract

namespace {

using contract::TreeMap;

// Goal:   both ways agree with each other to the last field, and with find(1) in all that it knows.
// Method: a tree of hard cases, frozen while a file that has no name any more is still open.
TEST(BtrfsDirectoryReader, AHardTreeIsReadAlikeAsAWholeByItsDirectoriesAndByFind) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  makeHardTree(machine);
  machine.shell("echo orphan > " + machine.volume + "/orphan");
  const UniqueFd orphan(::open((machine.volume + "/orphan").c_str(), O_RDWR | O_CLOEXEC));
  machine.shell("rm " + machine.volume + "/orphan");
  const std::string frozen = *trees.frozen();
  machine.shell("btrfs -q subvolume delete " + machine.volume + "/gone");

  const TreeMap whole = contract::readAsWhole(trees.reader(), frozen);
  contract::expectEqual(whole, contract::readByDirectories(trees.reader(), frozen));
  const auto told = findTells(machine, frozen);
  ASSERT_GT(told.size(), 800u);
  EXPECT_EQ(whole.size(), told.size());
  std::set<std::string> placeholders, inaccurate;
  for (const auto& [path, facts] : whole) {
    ASSERT_TRUE(told.contains(path)) << path;
    Told expected = told.at(path);
    if (facts.isPlaceholder) {
      placeholders.insert(path);
      EXPECT_EQ(facts.type, FileType::directory);
      continue;
    }
    if (std::string_view("fdl").find(expected.type) == std::string_view::npos) expected.type = '?';
    EXPECT_EQ(toldOf(facts), expected) << path;
    EXPECT_EQ(facts.generation != 0, facts.type == FileType::regular && facts.size > 0) << path;
  }
  EXPECT_THAT(placeholders, ::testing::ElementsAre("/deep/down/nested", "/deep/frozen", "/gone", "/nested"));
  EXPECT_EQ(whole.at("/files/large").flags, fileImmutable);
  EXPECT_EQ(whole.at("/files/grown").flags, fileAppendOnly);
  EXPECT_EQ(whole.at("/files/hole").flags, fileNoDump);
  EXPECT_EQ(whole.at("/plain/first"), whole.at("/plain/50"));
  machine.shell("cd " + machine.volume + "/files && chattr -i large && chattr -a grown");

  // The live volume tells the same of what didn't change, but for the nested ones that are gone.
  TreeMap live = contract::readByDirectories(trees.reader(), machine.volume);
  live.emplace("/gone", whole.at("/gone"));
  live.at("") = whole.at("");
  for (const char* path : {"/files/large", "/files/grown"}) live.at(path).flags = whole.at(path).flags;
  contract::expectEqual(live, whole);
}

// Goal:   nested subvolumes are found although hardly any directory's list is read as a whole.
// Method: more directories side by side than one read holds, nested subvolumes at the beginning, in the middle and at the
//         end of some of their lists, among names that aren't text and files with names in two directories.
TEST(BtrfsDirectoryReader, NestedSubvolumesAreFoundInListsThatAreNotReadToTheirEnd) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  machine.shell("cd " + machine.volume + R"sh(
    mkdir $(seq 200)
    for d in 1 70 130 200; do btrfs -q subvolume create $d/first; done
    for d in $(seq 200); do ( cd $d; touch $(seq 1001 1020) $'\xff' $'wide \xc3\xa9' ); done
    for d in 2 70 131 199; do btrfs -q subvolume create $d/$'middle \xff'; done
    for d in $(seq 200); do ( cd $d; touch $(seq 2001 2020); ln ../$((d % 200 + 1))/1001 linked ); done
    for d in 3 70 132 198; do btrfs -q subvolume create $d/last; done
    mkdir only none; btrfs -q subvolume create only/nested
  )sh");
  const std::string frozen = *trees.frozen();
  const TreeMap whole = contract::readAsWhole(trees.reader(), frozen);
  contract::expectEqual(whole, contract::readByDirectories(trees.reader(), frozen));
  EXPECT_EQ(whole.size(), 1u + 200 + 200 * 43 + 12 + 3);
  EXPECT_EQ(std::count_if(whole.begin(), whole.end(), [](const auto& entry) { return entry.second.isPlaceholder; }),
            13);
}

TEST(BtrfsDirectoryReader, AMountIsToldWithoutBeingTouchedAndWhatItHidesIsInTheSnapshot) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  machine.shell("cd " + machine.volume + R"( && mkdir a a/mounted && touch a/mounted/hidden a/file source
    mount -t tmpfs none a/mounted; touch a/mounted/foreign; mount --bind source a/file)");
  const TreeMap live = contract::readByDirectories(trees.reader(), machine.volume);
  EXPECT_TRUE(live.at("/a/mounted").isPlaceholder);
  EXPECT_EQ(live.at("/a/mounted").inode, 0u);
  EXPECT_TRUE(live.at("/a/file").isPlaceholder);
  EXPECT_EQ(live.at("/a/file").type, FileType::regular);
  EXPECT_EQ(live.size(), 5u);
  const auto tree = std::move(*trees.reader().openTree(machine.volume));
  EXPECT_EQ(tree->open("/a/mounted").error(), ENOENT);
  EXPECT_TRUE((*tree->open("/a"))->lstat("mounted")->isPlaceholder);
  const TreeMap frozen = contract::readAsWhole(trees.reader(), *trees.frozen());
  EXPECT_TRUE(frozen.contains("/a/mounted/hidden"));
  EXPECT_EQ(frozen.size(), 6u);
}

class Scans final {
 public:
  explicit Scans(BtrfsTrees& trees) : trees_(trees) {}

  std::map<std::string, SnapshotIndex::Facts> scan(ScanRequest request) {
    SnapshotScanner scanner(
        trees_.machine.dispatch, trees_.reader(), [](const std::string& note) { ADD_FAILURE() << note; },
        [](const std::string& warning) {  // of the way that is too long
          EXPECT_THAT(warning, ::testing::HasSubstr("1 unreadable directory skipped"));
        });
    std::map<std::string, SnapshotIndex::Facts> tree;
    scanner.scan(request).forEach(
        [&](const SnapshotIndex::EntryView& entry) { tree.emplace(std::string(entry.path), entry); });
    return tree;
  }
  // Open descriptors of this process that lie below the machine.
  std::vector<std::string> openFiles() {
    std::vector<std::string> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
      if (target.starts_with(trees_.machine.root)) open.push_back(target);
    }
    return open;
  }

 private:
  BtrfsTrees& trees_;
};

TEST(BtrfsScanner, ASnapshotAndItsVolumeGiveOneTreeAndOurPlaceIsNoPartOfATopLevel) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  makeHardTree(machine);
  machine.shell("mkdir -p " + machine.volume + "/.quillmark/theirs; cd " + machine.top +
                "; mkdir -p .quillmark/ours other/.quillmark/theirs; touch .quillmark/ours/file");
  Scans scans(trees);
  const std::string frozen = *trees.frozen();
  const ExclusionRules rules = ExclusionRules::compile({"deep/*", "plain"}, {"files"}, {});
  for (const bool hasRules : {false, true}) {
    ScanRequest request{.root = frozen, .lowPriority = true};
    if (hasRules) request.rules = rules;
    const auto tree = scans.scan(request);
    request.root = machine.volume;
    EXPECT_EQ(scans.scan(request), tree);
    EXPECT_TRUE(tree.contains("/.quillmark/theirs"));
    EXPECT_EQ(tree.contains("/files/large"), !hasRules);
    EXPECT_TRUE(tree.contains("/files"));
  }
  machine.shell("btrfs -q subvolume snapshot -r " + machine.top + " " + machine.top + "/of-the-top");
  for (const std::string& root : {machine.top, machine.top + "/of-the-top"}) {
    const auto tree = scans.scan({.root = root});
    EXPECT_FALSE(tree.contains("/.quillmark")) << root;
    EXPECT_FALSE(tree.contains("/.quillmark/ours/file")) << root;
    EXPECT_TRUE(tree.contains("/other/.quillmark/theirs")) << root;
  }
  EXPECT_THAT(scans.openFiles(), ::testing::IsEmpty());
}

// What was written just before counts, on its way to the disk or there.
TEST(BtrfsScanner, ASubvolumeThatWasMadeReadOnlyAMomentAgoIsReadAsItStands) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  machine.shell("cd " + machine.volume +
                " && for i in $(seq 1 300); do echo $i > $i; done; mkdir d; mv 7 d/seven; rm 8; truncate -s 5000 9"
                " && btrfs property set . ro true");
  const TreeMap whole = contract::readAsWhole(trees.reader(), machine.volume);
  contract::expectEqual(whole, contract::readByDirectories(trees.reader(), machine.volume));
  EXPECT_EQ(whole.size(), 301u);
  EXPECT_EQ(whole.at("/9").size, 5000);
  machine.shell("btrfs property set " + machine.volume + " ro false");
}

TEST(BtrfsScanner, ACancelledScanEndsSoonAndLeavesNothingOpen) {
  BtrfsTrees trees;
  os::BtrfsMachine& machine = trees.machine;
  machine.shell("cd " + machine.volume +
                " && for d in $(seq 1 20); do mkdir $d; (cd $d; seq 1 300 | xargs touch); done");
  Scans scans(trees);
  for (const std::string& root : {machine.volume, *trees.frozen()}) {
    for (int after = 0; after < 12; after += 2) {
      std::atomic<int> asked = 0;
      const ScanRequest request{.root = root, .isCancelled = [&] { return ++asked > after; }};
      EXPECT_THROW((void)scans.scan(request), Error);
      EXPECT_THAT(scans.openFiles(), ::testing::IsEmpty());
    }
  }
}

}  // namespace
}  // namespace quillmark
