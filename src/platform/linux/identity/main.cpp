// codesign: signs client programs, and says whether one is signed.
//   codesign --key PEM [--identifier ID] [--team TEAM] PROGRAM...    signs in place; asks for the private key's file
//   codesign --verify --anchor HEX PROGRAM...                         status 0 when all are signed by the anchor
//   codesign --anchor-of PEM                                          prints the anchor of a private key, in HEX
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "base/Error.h"
#include "base/UniqueFd.h"
#include "platform/linux/identity/CodeSignature.h"

namespace quillmark::os {
namespace {

template <auto release>
struct Release {
  void operator()(auto* object) const { release(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::optional<std::string> key, anchor, anchorOf, identifier, team;
  bool verify = false;
  std::vector<std::string> programs;
};

Arguments parse(int count, char** words) {
  Arguments arguments;
  const std::pair<const char*, std::optional<std::string>*> options[] = {{"--key", &arguments.key},
                                                                         {"--anchor", &arguments.anchor},
                                                                         {"--anchor-of", &arguments.anchorOf},
                                                                         {"--identifier", &arguments.identifier},
                                                                         {"--team", &arguments.team}};
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    std::optional<std::string>* value = nullptr;
    for (const auto& [name, place] : options) {
      if (word == name) value = place;
    }
    if (value && i + 1 < count) {
      *value = words[++i];
    } else if (word == "--verify") {
      arguments.verify = true;
    } else if (word.starts_with("-")) {
      throw Failure("unknown option, or one without its value: " + word);
    } else {
      arguments.programs.push_back(word);
    }
  }
  return arguments;
}

Key readKey(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), &std::fclose);
  if (!file) throw Failure(path + ": " + errnoText(errno));
  Key key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) throw Failure(path + ": no Ed25519 private key in PEM");
  return key;
}

CodeAnchor anchorOf(const Key& key) {
  CodeAnchor anchor;
  std::size_t length = anchor.publicKey.size();
  if (EVP_PKEY_get_raw_public_key(key.get(), anchor.publicKey.data(), &length) != 1) throw Failure("no public key");
  return anchor;
}

std::string hex(const CodeAnchor& anchor) {
  std::string digits;
  for (const unsigned char byte : anchor.publicKey) digits += fmt::format("{:02x}", byte);
  return digits;
}

struct OpenProgram {
  UniqueFd fd;
  std::uint64_t bytes = 0;
  CodeNote note;
};

OpenProgram open(const std::string& path, int flags) {
  OpenProgram program{UniqueFd(::open(path.c_str(), flags | O_CLOEXEC)), 0, {}};
  struct stat facts;
  if (!program.fd.valid() || ::fstat(program.fd.get(), &facts) != 0) throw Failure(path + ": " + errnoText(errno));
  program.bytes = static_cast<std::uint64_t>(facts.st_size);
  auto note = noteOfFile(program.fd.get(), program.bytes);
  if (!note) throw Failure(path + ": no client program: it has no note to sign");
  program.note = std::move(*note);
  return program;
}

void write(const OpenProgram& program, const void* bytes, std::size_t length, std::uint64_t offset) {
  if (::pwrite(program.fd.get(), bytes, length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length)) {
    throw Failure("write failed: " + errnoText(errno));
  }
}

void writeField(const OpenProgram& program, const std::string& text, std::size_t field, std::uint64_t offset) {
  if (text.empty() || text.size() >= field) throw Failure("too long, or empty: \"" + text + "\"");
  std::string filled = text;
  filled.resize(field, '\0');
  write(program, filled.data(), field, program.note.offset + offset);
}

Signature signatureOf(const Key& key, const std::string& message) {
  Signature signature{};
  std::size_t length = signature.size();
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
      EVP_DigestSign(context.get(), signature.data(), &length, reinterpret_cast<const unsigned char*>(message.data()),
                     message.size()) != 1) {
    throw Failure("the signature could not be made");
  }
  return signature;
}

void sign(const Key& key, const Arguments& arguments, const std::string& path) {
  const OpenProgram program = open(path, O_RDWR);
  writeField(program, arguments.identifier.value_or(program.note.identifier), CodeNote::identifierBytes, 0);
  writeField(program, arguments.team.value_or(program.note.team), CodeNote::teamBytes, CodeNote::identifierBytes);
  writeField(program, anchorOf(key).keyId(), CodeNote::keyIdBytes, CodeNote::identifierBytes + CodeNote::teamBytes);
  const auto digest = digestOfFile(program.fd.get(), program.bytes, program.note.signatureOffset());
  if (!digest) throw Failure(path + ": could not be read");
  const Signature signature = signatureOf(key, signedMessage(*digest));
  write(program, signature.data(), signature.size(), program.note.signatureOffset());
}

bool verify(const CodeAnchor& anchor, const std::string& path) {
  const OpenProgram program = open(path, O_RDONLY);
  const auto digest = digestOfFile(program.fd.get(), program.bytes, program.note.signatureOffset());
  const bool isSigned =
      digest && program.note.keyId == anchor.keyId() && isSignedBy(anchor, *digest, program.note.signature);
  fmt::print("{}: {} {} key {}: {}\n", path, program.note.identifier, program.note.team, program.note.keyId,
             isSigned ? "signed" : "NOT signed by this anchor");
  return isSigned;
}

int run(const Arguments& arguments) {
  if (arguments.anchorOf) {
    fmt::print("{}\n", hex(anchorOf(readKey(*arguments.anchorOf))));
    return 0;
  }
  if (arguments.programs.empty() || arguments.verify != arguments.anchor.has_value() ||
      arguments.verify == arguments.key.has_value()) {
    throw Failure(
        "usage: codesign --key PEM [--identifier ID] [--team TEAM] PROGRAM... | --verify --anchor HEX "
        "PROGRAM... | --anchor-of PEM");
  }
  if (arguments.verify) {
    const auto anchor = CodeAnchor::parse(*arguments.anchor);
    if (!anchor) throw Failure("an anchor has 64 hexadecimal digits");
    bool all = true;
    for (const std::string& path : arguments.programs) all = verify(*anchor, path) && all;
    return all ? 0 : 1;
  }
  const Key key = readKey(*arguments.key);
  for (const std::string& path : arguments.programs) sign(key, arguments, path);
  return 0;
}

}  // namespace
}  // namespace quillmark::os

int main(int count, char** words) {
  try {
    return quillmark::os::run(quillmark::os::parse(count, words));
  } catch (const std::exception& exception) {
    fmt::print(stderr, "codesign: {}\n", exception.what());
    return 2;
  }
}
