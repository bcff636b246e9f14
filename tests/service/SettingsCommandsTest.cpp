#include "DirectClient.h"
#include "ServiceMachine.h"
#include "notifications/EmailOffer.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using enum QuillmarkErrorCode;
using Client = HelperEvent::Client;
using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

const std::string rulesChanged =
    "setHelperSettings: exclusion rules changed; they apply from the next scan onward (existing indexes kept)";

class Mailbox final : public EmailOffer {
 public:
  std::vector<HelperNotification> offered;

 private:
  void offer(const HelperNotification& notification) override { offered.push_back(notification); }
};

// The reply to a client of this kind.
template <class Command>
RpcIncoming asked(ServiceMachine& machine, Client client, const Command& command) {
  std::optional<RpcIncoming> reply;
  EXPECT_TRUE(machine.simulation.run(machine.life, [&] {
    reply = DirectClient(machine.life.dispatch(), machine.helper.environment(), client).call(command);
  }));
  return *reply;
}

TEST(SettingsCommands, storeWhatIsSetAndSayWhenScansChange) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    HelperSettings settings = payload<HelperSettings>(client.call(GetHelperSettings{}));
    EXPECT_EQ(settings, HelperSettings());
    settings.safetySnapshotRetentionHours = 10'000;
    const auto stored = payload<HelperSettings>(client.call(SetHelperSettings{json(settings)}));
    EXPECT_EQ(stored.safetySnapshotRetentionHours, 720);
    EXPECT_EQ(payload<HelperSettings>(client.call(GetHelperSettings{})), stored);
    EXPECT_THAT(machine.logged(), Not(Contains(rulesChanged)));
    settings.excludedDirectoryNames.push_back("node_modules-of-mine");
    (void)client.call(SetHelperSettings{json(settings)});
  });
  machine.simulation.runFor(1s);
  EXPECT_THAT(machine.logged(), Contains(rulesChanged));
}

TEST(SettingsCommands, areForTheAppAndTheCommandLineAlone) {
  ServiceMachine machine;
  machine.run([] {});
  const SetHelperSettings rubbish{{"[]", 2}}, good{json(HelperSettings())};
  for (const Client client : {Client::helper, Client::finderSync, Client::unknown}) {
    const RpcIncoming reply = asked(machine, client, rubbish);
    if (client == Client::finderSync) {
      EXPECT_EQ(reply.refusalCode, static_cast<int>(RpcFault::methodNotFound)) << "it can't even name the command";
      continue;
    }
    expectError(reply, insufficientPrivileges, "This client is not authorized to change helper settings.");
  }
  EXPECT_THAT(machine.logged(), Not(Contains(StartsWith("setHelperSettings failed: "))))
      << "who isn't let in leaves the entry line alone";
  for (const Client client : {Client::gui, Client::cli}) {
    EXPECT_FALSE(asked(machine, client, good).reply.error);
    EXPECT_TRUE(asked(machine, client, rubbish).reply.error);
  }
  EXPECT_THAT(machine.logged(), Contains(StartsWith("setHelperSettings failed: ")));
}

TEST(SettingsCommands, takeInNewDefaultRulesAtTheStart) {
  ServiceMachine machine;
  HelperSettings old;
  old.excludedPathRules = {"/mine"};
  old.exclusionDefaultsVersion = std::nullopt;
  const std::vector<std::string> added = old.mergingNewDefaults().second;
  ASSERT_THAT(added, Not(IsEmpty()));
  createDirectories(machine.posix, machine.paths.stateDirectory, 0700);
  writeAtomically(machine.posix, machine.life.random(), machine.paths.state("settings.json"), encodeJson(old), 0600);
  machine.run([&] {
    const auto now = payload<HelperSettings>(machine.connect().call(GetHelperSettings{}));
    EXPECT_EQ(now, old.mergingNewDefaults().first);
  });
  std::string list;
  for (const std::string& rule : added) list += (list.empty() ? "" : ", ") + rule;
  EXPECT_THAT(machine.logged(),
              Contains("added " + std::to_string(added.size()) + " newly-shipped default exclusion(s): " + list +
                       "; they apply from the next scan onward (existing indexes kept)"));
}

TEST(ForwardedNotifications, goFromTheAppToEmailAndNowhereElse) {
  ServiceMachine machine;
  Mailbox mailbox;
  machine.helper.environment().notifications.setEmail(&mailbox);
  machine.run([] {});
  const auto forwarded = [](const std::string& id) {
    const std::string text = R"({"id":")" + id + R"(","timestamp":"2026-03-01T09:00:00Z","category":"novel"})";
    return ForwardNotification{{text, text.size()}};
  };
  const ForwardNotification sparse = forwarded("0F0E0D0C-0000-4000-8000-000000000001");
  expectError(asked(machine, Client::cli, sparse), insufficientPrivileges,
              "Only the Quillmark app may forward notifications.");
  EXPECT_THAT(machine.logged(), Not(Contains(StartsWith("forwardNotification failed: "))));
  EXPECT_TRUE(asked(machine, Client::gui, forwarded("A")).reply.error) << "no UUID";
  EXPECT_TRUE(asked(machine, Client::gui, ForwardNotification{{R"({"title":"A"})", 13}}).reply.error);
  EXPECT_THAT(mailbox.offered, IsEmpty());
  machine.runClient([&] {
    TestClient listener = machine.connect();
    (void)listener.call(ProtocolVersion{});
    DirectClient app(machine.life.dispatch(), machine.helper.environment(), Client::gui);
    EXPECT_FALSE(app.call(sparse).reply.error);
    listener.listen(1s);
    EXPECT_THAT(listener.pushes, IsEmpty());
  });
  ASSERT_THAT(mailbox.offered, testing::SizeIs(1));
  EXPECT_EQ(mailbox.offered[0].category, NotificationCategory::info);
  EXPECT_FALSE(machine.posix.lstat(notificationLogDescription(machine.paths).currentPath()));
}

}  // namespace
}  // namespace quillmark
