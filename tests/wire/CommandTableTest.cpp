#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "wire/CommandTable.h"
#include "wire/Commands.h"

namespace quillmark {
namespace {

using ::testing::HasSubstr;

std::string rowForDocuments(const CommandSpec& command) {
  std::string arguments;
  for (const ArgumentSpec& argument : command.arguments) {
    if (!arguments.empty()) arguments += ", ";
    arguments += std::string(argument.name) + ": " + std::string(word(argument.type));
  }
  const std::string reply =
      command.reply == ReplyKind::data ? std::string(command.replyRecord) : std::string(word(command.reply));
  return "| `" + std::string(command.selector) + "` | " + arguments + " | " + reply + " | " +
         std::string(word(command.queue)) + " | " + (command.drains ? "yes" : "") + " |";
}

TEST(CommandTable, isWhatTheDocumentSays) {
  std::ifstream file(QUILLMARK_DOCS "/wire.md");
  std::stringstream document;
  document << file.rdbuf();
  std::size_t documented = 0;
  for (std::string line; std::getline(document, line);)
    documented += line.starts_with("| `") && line.find(":`") != line.npos;
  for (const CommandSpec& command : commandTable()) {
    EXPECT_THAT(document.str(), HasSubstr(rowForDocuments(command))) << command.selector;
  }
  EXPECT_EQ(documented, commandTable().size()) << "the document has rows that the table lacks";
}

TEST(CommandTable, namesEachSelectorOnceAndGivesOneArgumentForEachOfItsColons) {
  std::set<std::string_view> seen;
  for (const CommandSpec& command : commandTable()) {
    EXPECT_TRUE(seen.insert(command.selector).second) << command.selector;
    EXPECT_EQ(findCommand(command.selector), &command);
    const auto colons = std::count(command.selector.begin(), command.selector.end(), ':');
    EXPECT_EQ(static_cast<std::size_t>(colons), command.arguments.size() + 1) << command.selector;
  }
  EXPECT_EQ(findCommand("helperVersion"), nullptr);
}

TEST(CommandTable, writesEntryLinesToTheLetter) {
  const auto line = [](const auto& call) {
    using Command = std::remove_cvref_t<decltype(call)>;
    return entryLine(*findCommand(Command::traits.selector), argumentValues(call));
  };
  EXPECT_EQ(line(ListSnapshots{"U", false, false}), "XPC listSnapshots(volume=U)");
  EXPECT_EQ(line(ListSnapshots{"U", true, false}), "XPC listSnapshots(volume=U, sizes)");
  EXPECT_EQ(line(ListSnapshots{"U", true, true}), "XPC listSnapshots(volume=U, sizes, force)");
  EXPECT_EQ(line(CreateSnapshot{"U", "my {label}"}), "XPC createSnapshot(volume=U, label=my {label})");
  EXPECT_EQ(line(DeleteSnapshot{"n", "U", true}), "XPC deleteSnapshot(name=n, volume=U, force=true)");
  EXPECT_EQ(line(MountSnapshot{"n", "U", 9}), "XPC mountSnapshot(name=n, volume=U, xid=9)");
  EXPECT_EQ(line(UnmountSnapshot{"/p"}), "XPC unmountSnapshot(path=/p)");
  EXPECT_EQ(line(CreateSafetySnapshot{"U", "l"}), "XPC createSafetySnapshot(volume=U, label=l)");
  EXPECT_EQ(line(SetProtected{"n", "U", false}), "XPC setProtected(name=n, volume=U, isProtected=false)");
  EXPECT_EQ(line(SetSnapshotTag{"n", "U", "\xC3\xBC!"}), "XPC setSnapshotTag(name=n, volume=U, tagBytes=3)");
  EXPECT_EQ(line(UnmountSnapshots{{"/a", "/b"}}), "XPC unmountSnapshots(count=2)");
  EXPECT_EQ(line(RequestQuit{}), "XPC requestQuit()");
  EXPECT_EQ(line(DeleteSnapshots{{"[]", 2}, "U"}), "") << "its specs must be decoded first";
  EXPECT_EQ(line(GetSchedule{"U"}), "XPC getSchedule(volume=U)");
  EXPECT_EQ(line(SetSchedule{"U", {"{}", 4}}), "XPC setSchedule(volume=U, 4 bytes)");
  EXPECT_EQ(line(SetHelperSettings{{"{}", 2}}), "XPC setHelperSettings(2 bytes)");
  EXPECT_EQ(line(ForwardNotification{{"{}", 2}}), "");
  EXPECT_EQ(line(ProtocolVersion{}), "");
  EXPECT_EQ(line(IndexedXIDs{"U"}), "");
  EXPECT_EQ(line(DiffSnapshots{"U", 4, "a", 5, "b", false, false}), "XPC diffSnapshots(volume=U, 4 ↔ 5)");
  EXPECT_EQ(line(DiffSnapshots{"U", 5, "b", 4, "a", true, true}), "XPC diffSnapshots(volume=U, 5 ↔ 4, FULL SCAN)");
  EXPECT_EQ(line(CompareSubtree{"U", "/p", 4, 5}), "");
  EXPECT_EQ(line(CompareLocalPaths{"/a", "/b", true, std::nullopt}), "");
  EXPECT_EQ(line(ReindexVolume{"U"}), "XPC reindexVolume(U)");
  EXPECT_EQ(line(ReindexAllVolumes{}), "XPC reindexAllVolumes()");
  EXPECT_EQ(line(ReindexSnapshot{"U", 7}), "XPC reindexSnapshot(volume=U, xid=7)");
}

TEST(CommandTable, speaksOfEachCommandByItsWord) {
  const std::vector<std::string_view> words{
      "helperVersion",     "helperGitCommit",   "requestQuit",         "protocolVersion",       "auditLogHealth",
      "helperHealth",      "getSchedule",       "setSchedule",         "listSchedules",         "getFreeSpaceStates",
      "getHelperSettings", "setHelperSettings", "forwardNotification", "listSnapshots",         "indexedXIDs",
      "compareLocalPaths", "compareSubtree",    "createSnapshot",      "createSafetySnapshot",  "deleteSnapshot",
      "deleteSnapshots",   "setProtected",      "setSnapshotTag",      "mountSnapshot",         "mountSnapshots",
      "unmountSnapshot",   "unmountSnapshots",  "pinSnapshotMounts",   "unpinSnapshotMounts",   "diffSnapshots",
      "reindexVolume",     "reindexAllVolumes", "reindexSnapshot",     "listUnservedSubvolumes"};
  ASSERT_EQ(words.size(), commandTable().size());
  for (std::size_t i = 0; i < words.size(); ++i) EXPECT_EQ(commandTable()[i].word(), words[i]);
}

}  // namespace
}  // namespace quillmark
