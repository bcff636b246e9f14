#include <elf.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "TemporaryDirectory.h"
#include "platform/contract/DispatchBackend.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Transport.h"
#include "platform/linux/TransportSocket.h"
#include "platform/linux/identity/CodeRequirement.h"
#include "platform/linux/identity/LinuxPeerIdentities.h"

namespace quillmark::os {
namespace {

using namespace std::chrono_literals;
using contract::Events;

// A file of one segment of notes.
struct NotedFile {
  std::string owner{"Quillmark\0", 10};
  std::uint32_t type = 1;
  std::uint16_t segments = 1;
  std::uint32_t alignment = 4;
  std::string identifier = "com.harrowfern.quillmark.cli";
  unsigned copies = 1;

  [[nodiscard]] std::string note() const {
    std::string descriptor = identifier;
    descriptor.resize(CodeNote::identifierBytes);
    descriptor += "R4MTZ8KP2C";
    descriptor.resize(CodeNote::identifierBytes + CodeNote::teamBytes);
    descriptor += "0123456789abcd";
    descriptor.resize(CodeNote::signaturePlace);
    descriptor.resize(CodeNote::descriptorBytes, 's');
    const Elf64_Nhdr header{.n_namesz = static_cast<Elf64_Word>(owner.size()),
                            .n_descsz = static_cast<Elf64_Word>(descriptor.size()),
                            .n_type = type};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += owner;
    bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
    return bytes + descriptor;
  }
  [[nodiscard]] std::string bytes() const {
    std::string notes;
    for (unsigned i = 0; i < copies; ++i) notes += note();
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_phoff = sizeof header;
    header.e_phentsize = sizeof(Elf64_Phdr);
    header.e_phnum = segments;
    Elf64_Phdr segment{};
    segment.p_type = PT_NOTE;
    segment.p_offset = sizeof header + sizeof segment;
    segment.p_filesz = notes.size();
    segment.p_align = alignment;
    std::string file(reinterpret_cast<const char*>(&header), sizeof header);
    return file.append(reinterpret_cast<const char*>(&segment), sizeof segment) + notes + "the program";
  }
};

std::optional<CodeNote> noteIn(const std::string& file) {
  const auto read = [&](std::span<unsigned char> into, std::uint64_t offset) {
    EXPECT_LE(offset + into.size(), file.size()) << "read outside the file";
    if (offset + into.size() > file.size()) return false;
    std::memcpy(into.data(), file.data() + offset, into.size());
    return true;
  };
  return findCodeNote(read, file.size());
}

TEST(CodeNoteTest, isFoundByTheProgramHeaders) {
  for (const std::uint32_t alignment : {4U, 8U}) {
    const std::string file = NotedFile{.alignment = alignment}.bytes();
    const auto note = noteIn(file);
    ASSERT_TRUE(note);
    EXPECT_EQ(note->identifier, "com.harrowfern.quillmark.cli");
    EXPECT_EQ(note->team, "R4MTZ8KP2C");
    EXPECT_EQ(note->keyId, "0123456789abcd");
    EXPECT_EQ(file.substr(note->signatureOffset(), signatureBytes), std::string(signatureBytes, 's'));
  }
}

TEST(CodeNoteTest, isNotFoundInWhatIsMalformed) {
  const NotedFile table[] = {{.owner = std::string("Guillmark\0", 10)},
                             {.owner = std::string("Quillmark", 9)},
                             {.type = 2},
                             {.segments = 0},
                             {.segments = 0xFFFF},
                             {.identifier = ""},
                             {.identifier = std::string(64, 'a')},
                             {.identifier = "com.harrowfern\n"},
                             {.identifier = std::string("a\0b", 3)},
                             {.copies = 0},
                             {.copies = 2}};
  for (std::size_t i = 0; i < std::size(table); ++i) EXPECT_FALSE(noteIn(table[i].bytes())) << i;
}

// Goal:   no cut and no changed byte of a file makes the search read outside of it.
TEST(CodeNoteTest, nothingIsReadOutsideOfAnyFile) {
  const std::string whole = NotedFile().bytes();
  for (std::size_t length = 0; length < whole.size() - 11; ++length) EXPECT_FALSE(noteIn(whole.substr(0, length)));
  for (std::size_t at = 0; at < 140; ++at) {
    for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
      std::string file = whole;
      file[at] = static_cast<char>(value);
      static_cast<void>(noteIn(file));
    }
  }
}

// An open file that is gone with its descriptor.
UniqueFd fileOf(const std::string& bytes) {
  UniqueFd file(::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  EXPECT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  return file;
}

// A key and what it signs.
class Signer final {
 public:
  Signer() {
    std::size_t length = anchor.publicKey.size();
    EVP_PKEY_get_raw_public_key(key_.get(), anchor.publicKey.data(), &length);
  }
  [[nodiscard]] Signature sign(const std::string& message) const {
    Signature signature{};
    std::size_t length = signature.size();
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get());
    EVP_DigestSign(context.get(), signature.data(), &length, reinterpret_cast<const unsigned char*>(message.data()),
                   message.size());
    return signature;
  }
  CodeAnchor anchor;

 private:
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_{EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"),
                                                                 &EVP_PKEY_free};
};

bool isSigned(const CodeAnchor& anchor, const std::string& bytes, const Signature& signature, std::uint64_t place) {
  const auto digest = digestOfFile(fileOf(bytes).get(), bytes.size(), place);
  return digest && isSignedBy(anchor, *digest, signature);
}

// Goal:   every byte of the file but the signature's own is signed.
TEST(CodeSignatureTest, noByteCanChange) {
  const Signer signer, other;
  const std::string file = NotedFile().bytes();
  const std::uint64_t place = noteIn(file)->signatureOffset();
  const auto digest = digestOfFile(fileOf(file).get(), file.size(), place);
  ASSERT_TRUE(digest);
  const Signature signature = signer.sign(signedMessage(*digest));
  EXPECT_TRUE(isSigned(signer.anchor, file, signature, place));
  EXPECT_FALSE(isSigned(other.anchor, file, signature, place));
  EXPECT_FALSE(isSigned(signer.anchor, file + '\0', signature, place));
  EXPECT_FALSE(digestOfFile(fileOf(file + "x").get(), file.size(), place)) << "grown while it was read";
  for (std::size_t at = 0; at < file.size(); ++at) {
    std::string changed = file;
    changed[at] ^= 1;
    const bool isOfSignature = at >= place && at < place + signatureBytes;
    EXPECT_EQ(isSigned(signer.anchor, changed, signature, place), isOfSignature) << at;
  }
  for (std::size_t at = 0; at < signatureBytes; ++at) {
    Signature changed = signature;
    changed[at] ^= 1;
    EXPECT_FALSE(isSigned(signer.anchor, file, changed, place)) << at;
  }
}

TEST(CodeSignatureTest, theSignatureMayLieAcrossTheChunksThatAreRead) {
  std::string file(600 * 1024, 'f');
  for (const std::uint64_t place : {std::uint64_t{0}, std::uint64_t{256 * 1024 - 30}, file.size() - signatureBytes}) {
    const auto before = digestOfFile(fileOf(file).get(), file.size(), place);
    std::string changed = file;
    changed.replace(place, signatureBytes, signatureBytes, 'X');
    EXPECT_EQ(digestOfFile(fileOf(changed).get(), file.size(), place), before);
    changed[(place + signatureBytes) % file.size()] ^= 1;
    EXPECT_NE(digestOfFile(fileOf(changed).get(), file.size(), place), before);
  }
}

TEST(CodeRequirementTest, isReadInItsOwnFormAlone) {
  const std::string text =
      "anchor apple generic and (identifier \"a.b\"      or identifier \"a.b.c\") and certificate leaf[subject.OU] = "
      "\"TEAM\"";
  const auto requirement = CodeRequirement::parse(text);
  ASSERT_TRUE(requirement);
  EXPECT_TRUE(requirement->isMetBy("a.b", "TEAM") && requirement->isMetBy("a.b.c", "TEAM"));
  EXPECT_FALSE(requirement->isMetBy("a", "TEAM") || requirement->isMetBy("a.b", "OTHER") ||
               requirement->isMetBy("", ""));
  for (std::size_t length = 0; length < text.size(); ++length) {
    EXPECT_FALSE(CodeRequirement::parse(text.substr(0, length))) << length;
  }
  for (const char* other : {"anchor apple", "identifier \"a.b\"",
                            "anchor apple generic and (identifier \"\") and "
                            "certificate leaf[subject.OU] = \"T\""}) {
    EXPECT_FALSE(CodeRequirement::parse(other));
  }
  EXPECT_FALSE(CodeRequirement::parse(text + " or true"));
}

class IdentityThreadsTest : public testing::Test {
 protected:
  LinuxClock clock_;
  LinuxDispatch dispatch_{clock_};
};

// Goal:   work that hangs is given up in time, its threads stay counted, and there are never more than so many.
TEST_F(IdentityThreadsTest, whatHangsIsGivenUpAndBounded) {
  struct Gate {
    NativeMutex mutex;
    NativeCondition opened;
    bool isOpen GUARDED_BY(mutex) = false;
    std::atomic<int> entered = 0;
    void pass() {
      ++entered;
      NativeLock lock(mutex);
      while (!isOpen) opened.wait(mutex);
    }
  };
  const auto gate = std::make_shared<Gate>();
  IdentityThreads threads(dispatch_, {.most = 3, .patience = 100ms});
  const auto hang = [gate] {
    gate->pass();
    return std::optional(1);
  };
  const auto quick = [] { return std::optional(2); };
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(threads.run<int>(hang));
  EXPECT_EQ(threads.run<int>(quick), 2) << "one is left";
  EXPECT_FALSE(threads.run<int>(hang));
  EXPECT_FALSE(threads.run<int>(quick)) << "none is left";
  EXPECT_FALSE(threads.run<int>(hang));
  EXPECT_EQ(gate->entered, 3);
  EXPECT_EQ(threads.running(), 3U);
  {
    NativeLock lock(gate->mutex);
    gate->isOpen = true;
    gate->opened.notifyAll();
  }
  EXPECT_EQ(threads.run<int>(quick), 2) << "who waits gets the first that comes free";
  while (threads.running() > 0) sleepFor(dispatch_, 1ms);
}

class GuardedConnectionTest : public testing::Test {
 protected:
  GuardedConnectionTest() {
    listener_.resume([this](const std::shared_ptr<TransportConnection>& connection) {
      token_.with([&](auto& token) { token = peers_.auditToken(connection->peer()); });
      EXPECT_EQ(peers_.auditToken(connection->peer()), token());
      connection->setCodeSigningRequirement("");
      connection->start({.received = [this](std::string line) { events_.add(std::move(line)); },
                         .closed =
                             [this](CloseReason reason) {
                               events_.add(reason == CloseReason::notThePeer ? "[not the peer]" : "[closed]");
                             }});
      return true;
    });
  }

  [[nodiscard]] std::optional<std::vector<std::uint32_t>> token() {
    return token_.with([](auto& token) { return token; });
  }
  [[nodiscard]] UniqueFd connect() { return std::move(*connectTo(socket_)); }

  const TemporaryDirectory directory_;
  const std::string socket_ = directory_.path() + "/run/helper.sock";
  LinuxClock clock_;
  LinuxDispatch dispatch_{clock_};
  LinuxPeerIdentities peers_{dispatch_, {.owner = ::geteuid()}};
  Guarded<std::optional<std::vector<std::uint32_t>>> token_{dispatch_};
  Events events_{dispatch_};
  LinuxTransport listener_{dispatch_, {.path = socket_}};
};

void sendFromAChild(int socket, const char* line) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(::send(socket, line, std::strlen(line), MSG_NOSIGNAL) > 0 ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(GuardedConnectionTest, messagesCountFromThePeersOwnProcessAlone) {
  const UniqueFd socket = connect();
  ASSERT_EQ(::send(socket.get(), "mine\n", 5, 0), 5);
  EXPECT_THAT(events_.await(1), testing::ElementsAre("mine"));
  sendFromAChild(socket.get(), "a child's\n");
  EXPECT_THAT(events_.await(2), testing::ElementsAre("mine", "[not the peer]"));
}

// Goal:   a line that the peer began and another ended counts as nobody's.
TEST_F(GuardedConnectionTest, aLineOfTwoProcessesIsNobodys) {
  const UniqueFd socket = connect();
  ASSERT_EQ(::send(socket.get(), "begun ", 6, 0), 6);
  sendFromAChild(socket.get(), "and ended\n");
  EXPECT_THAT(events_.await(1), testing::ElementsAre("[not the peer]"));
}

TEST_F(GuardedConnectionTest, theTokenTellsTheUserTheGroupAndTheProcess) {
  UniqueFd socket = connect();
  ASSERT_EQ(::send(socket.get(), "x\n", 2, 0), 2);
  ASSERT_EQ(events_.await(1).size(), 1U);
  const auto words = token();
  ASSERT_TRUE(words && words->size() == auditTokenWords);
  EXPECT_EQ((*words)[1], ::geteuid());
  EXPECT_EQ((*words)[2], ::getegid());
  EXPECT_EQ((*words)[5], static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(peers_.processUser(::getpid()), ::geteuid());
  EXPECT_EQ(peers_.processPath(::getpid()), std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_FALSE(peers_.processUser(0x7FFFFFF0));
  socket.reset();
  EXPECT_THAT(events_.await(2), testing::ElementsAre("x", "[closed]")) << "told while there is somebody to hear it";
}

// A child that becomes sleep(1) when it is told to.
class BecomingChild final {
 public:
  BecomingChild() {
    EXPECT_EQ(::pipe2(pipe_, O_CLOEXEC), 0);
    pid_ = ::fork();
    if (pid_ != 0) return;
    char go;
    static_cast<void>(::read(pipe_[0], &go, 1));
    ::execl("/bin/sleep", "sleep", "1000", nullptr);
    ::_exit(1);
  }
  ~BecomingChild() {
    end();
    ::waitpid(pid_, nullptr, 0);
    for (const int fd : pipe_) ::close(fd);
  }
  void become() {
    ASSERT_EQ(::write(pipe_[1], "!", 1), 1);
    const std::string link = "/proc/" + std::to_string(pid_) + "/exe";
    while (std::filesystem::read_symlink(link) == std::filesystem::read_symlink("/proc/self/exe")) ::usleep(100);
  }
  void end() const { ::kill(pid_, SIGKILL); }
  [[nodiscard]] LinuxPeerProcess process() const {
    return {pid_, UniqueFd(static_cast<int>(::syscall(434 /* pidfd_open(2) */, pid_, 0)))};
  }

 private:
  pid_t pid_ = -1;
  int pipe_[2] = {-1, -1};
};

// Goal:   what was held of a process is lost for good when it runs another program, or none, however that is looked at.
TEST(LinuxPeerProcessTest, countsWhileItRunsWhatIsHeldAndNoLonger) {
  for (const bool byMemory : {true, false}) {
    for (const bool byEnding : {true, false}) {
      BecomingChild child;
      LinuxPeerProcess process = child.process();
      auto directory = process.look();
      ASSERT_TRUE(directory && directory->memory.valid());
      if (!byMemory) directory->memory.reset();
      EXPECT_FALSE(process.runsWhatIsHeld()) << "nothing is held yet";
      process.hold(std::move(*directory));
      EXPECT_TRUE(process.runsWhatIsHeld());
      byEnding ? child.end() : child.become();
      while (byEnding && process.lives()) ::usleep(100);
      EXPECT_FALSE(process.runsWhatIsHeld());
      EXPECT_EQ(process.look().has_value(), !byEnding);
    }
  }
}

TEST(LinuxPeerIdentitiesTest, letNobodyInByGroupsThatDoNotExist) {
  LinuxClock clock;
  LinuxDispatch dispatch(clock);
  LinuxPeerIdentities peers(dispatch, {});
  EXPECT_TRUE(peers.admits({.uid = 0, .gid = 4242}));
  EXPECT_FALSE(peers.admits({.uid = 1000, .gid = 1000, .groups = {1000}}));
  EXPECT_FALSE(peers.auditToken({.uid = 0, .pid = ::getpid()})) << "of no connection";
}

}  // namespace
}  // namespace quillmark::os
