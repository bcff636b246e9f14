#include "platform/linux/DeviceNames.h"

#include <boost/json.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <set>

#include "base/Error.h"
#include "platform/NameText.h"

namespace quillmark::os {
namespace {

namespace json = boost::json;

constexpr std::int64_t sizeLimit = 4 * 1024 * 1024;
constexpr std::uint64_t numberLimit = 1'000'000'000;
constexpr std::uint64_t version = 1;

json::object* objectAt(json::object& parent, std::string_view key) {
  json::value* value = parent.if_contains(key);
  return value ? value->if_object() : nullptr;
}

// 0 when the key is missing; nothing when it holds anything but a number that we could have given.
std::optional<std::uint64_t> numberAt(const json::object& parent, std::string_view key) {
  const json::value* value = parent.if_contains(key);
  if (!value) return 0;
  json::error_code error;
  const auto number = value->to_number<std::uint64_t>(error);
  if (error || number == 0 || number > numberLimit) return std::nullopt;
  return number;
}

// The keys of the map name what they number; each number stands once.
std::optional<std::string> numbersFault(const json::object& map, std::string_view numberKey) {
  std::set<std::uint64_t> numbers;
  for (const auto& [key, value] : map) {
    const auto* entry = value.if_object();
    const auto number = entry ? numberAt(*entry, numberKey) : std::nullopt;
    const auto uuid = Uuid::parse(key);
    if (!uuid || uuid->lower() != std::string_view(key))
      return fmt::format("\"{}\" is no UUID in lower case", displayName(nameText(key)));
    if (!number || *number == 0) return fmt::format("{} has no valid \"{}\"", std::string_view(key), numberKey);
    if (!numbers.insert(*number).second) return fmt::format("\"{}\" {} stands twice", numberKey, *number);
  }
  return std::nullopt;
}

std::optional<std::string> structureFault(json::value& value) {
  auto* root = value.if_object();
  if (!root) return "it is no object";
  if (numberAt(*root, "version") != version) return "its version isn't 1";
  auto* fileSystems = objectAt(*root, "fileSystems");
  if (!fileSystems || !numberAt(*root, "nextDisk")) return "\"fileSystems\" or \"nextDisk\" is damaged";
  if (auto fault = numbersFault(*fileSystems, "disk")) return fault;
  for (auto& [fsid, fileSystem] : *fileSystems) {
    auto* volumes = objectAt(fileSystem.get_object(), "volumes");
    if (!volumes || !numberAt(fileSystem.get_object(), "nextVolume")) {
      return fmt::format("{}: \"volumes\" or \"nextVolume\" is damaged", std::string_view(fsid));
    }
    if (auto fault = numbersFault(*volumes, "volume")) return fault;
  }
  return std::nullopt;
}

// The next number to give: past all that stand in the map, and past those whose entries were taken out, which the
// counter remembers.
std::uint64_t nextNumber(const json::object& parent, std::string_view counterKey, const json::object& map,
                         std::string_view numberKey) {
  std::uint64_t next = std::max<std::uint64_t>(1, numberAt(parent, counterKey).value_or(0));
  for (const auto& [key, value] : map) next = std::max(next, *numberAt(value.get_object(), numberKey) + 1);
  return next;
}

struct Numbers {
  std::uint64_t disk = 0;
  std::uint64_t volume = 0;  // 0 for the disk itself
};

bool takeDigits(std::string_view& text, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || text.starts_with('0')) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

std::optional<Numbers> parseName(std::string_view name) {
  Numbers numbers;
  if (!name.starts_with("disk")) return std::nullopt;
  name.remove_prefix(4);
  if (!takeDigits(name, numbers.disk)) return std::nullopt;
  if (name.empty()) return numbers;
  if (!name.starts_with('s')) return std::nullopt;
  name.remove_prefix(1);
  if (!takeDigits(name, numbers.volume) || !name.empty()) return std::nullopt;
  return numbers;
}

}  // namespace

// The file and what was last read of it. Called under the registry's lock.
class DeviceNames::File final {
 public:
  File(Posix& posix, std::string path, Mode mode)
      : posix_(posix), path_(std::move(path)), mode_(mode), directoryUnsynced_(mode == Mode::writer) {}

  [[nodiscard]] bool isWriter() const { return mode_ == Mode::writer; }
  [[nodiscard]] const std::optional<std::string>& problem() const { return problem_ ? problem_ : writeProblem_; }

  // The content as it stands on disk now; null when there is none to go by.
  json::object* load() {
    const SysResult<FileStatus> status = posix_.lstat(path_);
    if (!status && status.error() != ENOENT) return fail("lstat", status.error());
    if (!status) {
      forget();
      problem_.reset();
      if (isWriter()) content_ = empty();
      return root();
    }
    if (content_ && stamp_ && isSame(*stamp_, *status)) return root();
    return read();
  }

  // Puts the new content on disk. False when it may not be there.
  bool store(const json::value& content) {
    const std::string temporary = path_ + ".new";
    if (makeDirectory() && write(temporary, json::serialize(content) + "\n") && rename(temporary) && syncDirectory()) {
      problem_.reset();
      writeProblem_.reset();
      forget();
      return true;
    }
    static_cast<void>(posix_.unlink(temporary));
    writeProblem_ = problem_;
    return false;
  }

  // False while a rename that happened isn't known to be on disk.
  bool isDurable() {
    if (!stamp_ || !directoryUnsynced_ || syncDirectory()) return true;
    writeProblem_ = problem_;
    return false;
  }

  [[nodiscard]] const json::value& content() const { return *content_; }

 private:
  static json::value empty() {
    return json::object({{"version", version}, {"nextDisk", 1}, {"fileSystems", json::object()}});
  }

  static bool isSame(const FileStatus& a, const FileStatus& b) {
    return a.device == b.device && a.inode == b.inode && a.size == b.size && a.modified == b.modified &&
           a.changed == b.changed;
  }

  json::object* root() { return content_ ? &content_->get_object() : nullptr; }

  void forget() {
    content_.reset();
    stamp_.reset();
  }

  json::object* fail(std::string_view operation, int error) {
    return refuse(posixError(operation, path_, error).description());
  }
  json::object* refuse(std::string why) {
    forget();
    problem_ = std::move(why);
    return nullptr;
  }

  json::object* read() {
    forget();
    const auto fd = posix_.open(path_, {.read = true, .noFollow = true});
    if (!fd) return fail("open", fd.error());
    const OpenFile file(posix_, *fd);
    const auto status = posix_.fstat(file.get());
    if (!status) return fail("fstat", status.error());
    if (status->type != FileType::regular || status->size > sizeLimit) {
      return refuse(fmt::format("{} is no regular file of at most {} bytes", path_, sizeLimit));
    }
    std::string text(static_cast<std::size_t>(status->size) + 1, '\0');
    std::size_t size = 0;
    for (;;) {
      const auto count = posix_.read(file.get(), std::as_writable_bytes(std::span(text)).subspan(size));
      if (!count && count.error() == EINTR) continue;
      if (!count) return fail("read", count.error());
      if (*count == 0) break;
      size += *count;
    }
    text.resize(size);
    return take(text, *status);
  }

  json::object* take(const std::string& text, const FileStatus& status) {
    json::parse_options options;
    options.max_depth = 16;
    json::error_code error;
    json::value value = json::parse(text, error, {}, options);
    if (error) return refuse(fmt::format("{} can't be understood: {}", path_, error.message()));
    if (auto fault = structureFault(value)) return refuse(fmt::format("{} can't be understood: {}", path_, *fault));
    content_ = std::move(value);
    stamp_ = status;
    problem_.reset();
    return root();
  }

  static std::string above(const std::string& path) {
    return path.substr(0, std::max<std::size_t>(1, path.rfind('/')));
  }

  bool makeDirectory() {
    const std::string directory = above(path_);
    const SysStatus made = posix_.mkdir(directory, 0755);
    if (!made && made.error() != EEXIST) return fail("mkdir", made.error());
    if (aboveUnsynced_) aboveUnsynced_ = !sync(above(directory));
    return !aboveUnsynced_;
  }

  bool rename(const std::string& temporary) {
    if (const SysStatus status = posix_.rename(temporary, path_); !status) return fail("rename", status.error());
    return true;
  }

  bool write(const std::string& path, std::string_view text) {
    if (text.size() > static_cast<std::size_t>(sizeLimit)) return refuse(fmt::format("{} is full", path_));
    static_cast<void>(posix_.unlink(path));
    const auto fd = posix_.open(path, {.write = true, .create = true, .exclusive = true, .mode = 0644});
    if (!fd) return fail("open", fd.error());
    const OpenFile file(posix_, *fd);
    if (const SysStatus status = posix_.fchmod(file.get(), 0644); !status) return fail("fchmod", status.error());
    while (!text.empty()) {
      const auto count = posix_.write(file.get(), text);
      if (!count && count.error() == EINTR) continue;
      if (!count) return fail("write", count.error());
      text.remove_prefix(*count);
    }
    if (const SysStatus status = posix_.fsync(file.get()); !status) return fail("fsync", status.error());
    return true;
  }

  bool syncDirectory() {
    directoryUnsynced_ = true;
    if (sync(above(path_))) directoryUnsynced_ = false;
    return !directoryUnsynced_;
  }

  bool sync(const std::string& directory) {
    const auto fd = posix_.open(directory, {.read = true, .directory = true});
    if (!fd) return fail("open", fd.error());
    const OpenFile file(posix_, *fd);
    if (const SysStatus status = posix_.fsync(file.get()); !status) return fail("fsync", status.error());
    return true;
  }

  Posix& posix_;
  const std::string path_;
  const Mode mode_;
  std::optional<json::value> content_;
  std::optional<FileStatus> stamp_;
  std::optional<std::string> problem_;
  std::optional<std::string> writeProblem_;
  // An earlier life may have ended between a rename, or a mkdir, and its being on disk.
  bool directoryUnsynced_;
  bool aboveUnsynced_ = true;
};

DeviceNames::DeviceNames(Posix& posix, std::string path, Mode mode)
    : file_(std::make_unique<File>(posix, std::move(path), mode)) {}

DeviceNames::~DeviceNames() = default;

namespace {

std::optional<Numbers> numbersOf(json::object& root, const Uuid& fileSystem, const Uuid* volume) {
  json::object* entry = objectAt(root.at("fileSystems").get_object(), fileSystem.lower());
  if (!entry) return std::nullopt;
  Numbers numbers{.disk = *numberAt(*entry, "disk"), .volume = 0};
  if (!volume) return numbers;
  const json::object* named = objectAt(entry->at("volumes").get_object(), volume->lower());
  if (!named) return std::nullopt;
  numbers.volume = *numberAt(*named, "volume");
  return numbers;
}

// An insertion moves what the object holds: no reference into an object outlives one.
void giveVolume(json::object& entry, const Uuid& volume) {
  json::object& volumes = entry.at("volumes").get_object();
  const std::uint64_t number = nextNumber(entry, "nextVolume", volumes, "volume");
  volumes[volume.lower()] = json::object({{"volume", number}});
  entry["nextVolume"] = number + 1;
}

void giveDisk(json::object& root, const Uuid& fileSystem) {
  json::object& fileSystems = root.at("fileSystems").get_object();
  const std::uint64_t number = nextNumber(root, "nextDisk", fileSystems, "disk");
  fileSystems[fileSystem.lower()] = json::object({{"disk", number}, {"nextVolume", 1}, {"volumes", json::object()}});
  root["nextDisk"] = number + 1;
}

void give(json::object& root, const Uuid& fileSystem, const Uuid* volume) {
  const auto fileSystems = [&]() -> json::object& { return root.at("fileSystems").get_object(); };
  if (!fileSystems().contains(fileSystem.lower())) giveDisk(root, fileSystem);
  json::object& entry = fileSystems().at(fileSystem.lower()).get_object();
  const bool isNew = volume && !entry.at("volumes").get_object().contains(volume->lower());
  if (isNew) giveVolume(entry, *volume);
}

std::string nameOf(Numbers numbers) {
  return numbers.volume ? fmt::format("disk{}s{}", numbers.disk, numbers.volume) : fmt::format("disk{}", numbers.disk);
}

enum class Missing { give, leave };

// The name that stands in the file, given now if need be and if we may.
template <class File>
std::optional<std::string> nameIn(File& file, const Uuid& fileSystem, const Uuid* volume, Missing missing) {
  json::object* root = file.load();
  if (!root || !file.isDurable()) return std::nullopt;
  if (const auto numbers = numbersOf(*root, fileSystem, volume)) return nameOf(*numbers);
  if (missing == Missing::leave || !file.isWriter()) return std::nullopt;
  json::value changed = file.content();
  give(changed.get_object(), fileSystem, volume);
  const auto numbers = numbersOf(changed.get_object(), fileSystem, volume);
  if (!file.store(changed)) return std::nullopt;
  return nameOf(*numbers);
}

// Both callers look for numbers that structureFault() has seen to stand once.
const json::object* entryWithNumber(const json::object& map, std::string_view key, std::uint64_t number, Uuid& uuid) {
  for (const auto& [name, value] : map) {
    if (*numberAt(value.get_object(), key) != number) continue;
    uuid = *Uuid::parse(name);
    return &value.get_object();
  }
  return nullptr;
}

}  // namespace

std::optional<std::string> DeviceNames::disk(const Uuid& fileSystem) {
  NativeLock lock(mutex_);
  return nameIn(*file_, fileSystem, nullptr, Missing::give);
}

std::optional<std::string> DeviceNames::volume(const Volume& volume) {
  NativeLock lock(mutex_);
  return nameIn(*file_, volume.fileSystem, &volume.volume, Missing::give);
}

std::optional<std::string> DeviceNames::givenVolume(const Volume& volume) {
  NativeLock lock(mutex_);
  return nameIn(*file_, volume.fileSystem, &volume.volume, Missing::leave);
}

std::optional<std::string> DeviceNames::role(const Volume& volume) {
  NativeLock lock(mutex_);
  json::object* root = file_->load();
  json::object* entry = root ? objectAt(root->at("fileSystems").get_object(), volume.fileSystem.lower()) : nullptr;
  json::object* named = entry ? objectAt(entry->at("volumes").get_object(), volume.volume.lower()) : nullptr;
  const json::value* role = named ? named->if_contains("role") : nullptr;
  if (!role || !role->is_string()) return std::nullopt;
  return std::string(role->get_string());
}

std::optional<Uuid> DeviceNames::fileSystemNamed(std::string_view name) {
  const auto numbers = parseName(name);
  if (!numbers) return std::nullopt;
  NativeLock lock(mutex_);
  json::object* root = file_->load();
  Uuid fileSystem;
  if (!root || !entryWithNumber(root->at("fileSystems").get_object(), "disk", numbers->disk, fileSystem)) {
    return std::nullopt;
  }
  return fileSystem;
}

std::optional<DeviceNames::Volume> DeviceNames::volumeNamed(std::string_view name) {
  const auto numbers = parseName(name);
  if (!numbers || numbers->volume == 0) return std::nullopt;
  NativeLock lock(mutex_);
  json::object* root = file_->load();
  if (!root) return std::nullopt;
  Volume found;
  const json::object* entry =
      entryWithNumber(root->at("fileSystems").get_object(), "disk", numbers->disk, found.fileSystem);
  if (!entry || !entryWithNumber(entry->at("volumes").get_object(), "volume", numbers->volume, found.volume)) {
    return std::nullopt;
  }
  return found;
}

std::optional<std::string> DeviceNames::problem() {
  NativeLock lock(mutex_);
  static_cast<void>(file_->load());
  return file_->problem();
}

}  // namespace quillmark::os
