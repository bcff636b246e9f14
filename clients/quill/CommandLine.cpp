#include "quill/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>

#include "platform/NameText.h"
#include "quill/ClientVersion.h"
#include "quill/Failures.h"
#include "quill/HelpTexts.h"

namespace quillmark::cli {
namespace {

// CLI11 takes a list argument of the form "[a,b]" apart, which would tear JSON arrays and names in brackets: such
// arguments pass it behind a byte that no argument begins with.
constexpr char guard = '\x01';

std::string guarded(const std::string& argument) {
  return argument.starts_with('[') || argument.starts_with(guard) ? guard + argument : argument;
}

std::string unguarded(const std::string& argument) {
  return argument.starts_with(guard) ? argument.substr(1) : argument;
}

std::string name(const std::string& argument) { return nameText(unguarded(argument), NameEscapes::controls); }
std::string path(const std::string& argument) { return nameText(unguarded(argument)); }

// The commands with the variables that CLI11 fills.
class Grammar {
 public:
  Grammar();
  [[nodiscard]] std::variant<Invocation, HelpText> parse(std::vector<std::string> arguments);
  [[nodiscard]] bool hasCommand(const std::string& word) const;

 private:
  CLI::App* add(const HelpEntry& entry);
  CLI::App* addOnVolume(const HelpEntry& entry);
  [[nodiscard]] Request request() const;
  [[nodiscard]] std::optional<std::string> volume() const;
  [[nodiscard]] Error misused(const CLI::ParseError& error) const;

  CLI::App app_{std::string(HelpTexts::program.description), "quill"};
  bool json_ = false;
  bool noColor_ = false;
  std::string socket_;
  std::string volume_;
  std::string word_;
  std::vector<std::string> words_;
  bool full_ = false;
  bool force_ = false;
  CLI::App *volumes_, *list_, *create_, *delete_, *mount_, *unmount_, *health_, *version_, *call_;
};

CLI::App* Grammar::add(const HelpEntry& entry) {
  CLI::App* command = app_.add_subcommand(std::string(entry.name), std::string(entry.description));
  command->footer(std::string(entry.footer));
  command->fallthrough();
  return command;
}

CLI::App* Grammar::addOnVolume(const HelpEntry& entry) {
  CLI::App* command = add(entry);
  command->add_option("-v,--volume", volume_, std::string(HelpTexts::volumeOption))->type_name("VOLUME");
  return command;
}

Grammar::Grammar() {
  app_.footer(std::string(HelpTexts::program.footer));
  app_.require_subcommand(1);
  app_.set_help_flag("-h,--help", "Show help; of one command after its name");
  app_.set_version_flag("--version", "quill " + std::string(clientVersion()), "Show the version of this quill alone");
  app_.add_flag("--json", json_, "Print the value as JSON; an error too, as {\"error\":{…}} on standard output");
  app_.add_flag("--no-color", noColor_, "No colours, also by a NO_COLOR in the environment");
  app_.add_option("--socket", socket_, "")->group("");

  volumes_ = add(HelpTexts::volumes);
  list_ = addOnVolume(HelpTexts::list);
  create_ = addOnVolume(HelpTexts::create);
  delete_ = addOnVolume(HelpTexts::remove);
  mount_ = addOnVolume(HelpTexts::mount);
  unmount_ = addOnVolume(HelpTexts::unmount);
  health_ = add(HelpTexts::health);
  version_ = add(HelpTexts::version);
  call_ = add(HelpTexts::call);

  volumes_->add_flag("--full", full_, "Cut nothing and leave nothing out on a terminal");
  list_->add_flag("--full", full_, "Show whole names, also on a terminal");
  create_->add_option("label", word_, "What to remember it by")->type_name("LABEL");
  delete_->add_option("snapshots", words_, "What to delete")->type_name("SNAPSHOT")->required();
  delete_->add_flag("--force", force_, "Delete protected snapshots too");
  mount_->add_option("snapshot", word_, "What to mount")->type_name("SNAPSHOT")->required();
  unmount_->add_option("snapshot", word_, "What to unmount")->type_name("SNAPSHOT-or-PATH")->required();
  call_->add_option("selector", word_, "The call, with its colons")->type_name("SELECTOR")->required();
  call_->add_option("arguments", words_, "Its arguments in order")->type_name("JSON");
}

bool Grammar::hasCommand(const std::string& word) const {
  const auto named = [&](const CLI::App* command) { return command->get_name() == word; };
  return !app_.get_subcommands(named).empty();
}

std::variant<Invocation, HelpText> Grammar::parse(std::vector<std::string> arguments) {
  for (std::string& argument : arguments) argument = guarded(argument);
  std::reverse(arguments.begin(), arguments.end());  // CLI11 takes them from the back
  try {
    app_.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    const auto commands = app_.get_subcommands();
    return HelpText{commands.empty() ? app_.help() : commands.front()->help("quill")};
  } catch (const CLI::CallForVersion& version) {
    return HelpText{std::string(version.what()) + "\n"};
  } catch (const CLI::ParseError& error) {
    throw misused(error);
  }
  return Invocation{json_, !noColor_, socket_.empty() ? std::nullopt : std::optional(socket_), request()};
}

Error Grammar::misused(const CLI::ParseError& error) const {
  std::string message = error.what();
  std::erase(message, guard);
  if (!message.ends_with('.')) message += '.';
  const auto commands = app_.get_subcommands();
  const std::string command = commands.empty() ? "" : commands.front()->get_name() + " ";
  return wrongUse(std::move(message), "See: quill " + command + "--help");
}

std::optional<std::string> Grammar::volume() const {
  return volume_.empty() ? std::nullopt : std::optional(path(volume_));
}

Request Grammar::request() const {
  if (*volumes_) return VolumesRequest{full_};
  if (*list_) return ListRequest{volume(), full_};
  if (*create_) return CreateRequest{volume(), path(word_)};
  if (*mount_) return MountRequest{volume(), name(word_)};
  if (*unmount_) return UnmountRequest{volume(), path(word_)};
  if (*health_) return HealthRequest{};
  if (*version_) return VersionRequest{};
  std::vector<std::string> words;
  if (*delete_) {
    for (const std::string& word : words_) words.push_back(name(word));
    return DeleteRequest{volume(), std::move(words), force_};
  }
  for (const std::string& word : words_) words.push_back(unguarded(word));
  return CallRequest{unguarded(word_), std::move(words)};
}

}  // namespace

std::variant<Invocation, HelpText> parseCommandLine(const std::vector<std::string>& arguments) {
  Grammar grammar;
  std::vector<std::string> words = arguments;
  // "quill help list" is "quill list --help".
  if (!words.empty() && words.front() == "help") {
    words.erase(words.begin());
    words.emplace_back("--help");
  }
  if (words.empty()) throw wrongUse("A command is missing.", "See: quill --help");
  if (!words.front().starts_with('-') && !grammar.hasCommand(words.front())) {
    throw wrongUse("There is no command \"" + nameText(words.front()) + "\".", "See: quill --help");
  }
  return grammar.parse(std::move(words));
}

bool asksForJson(const std::vector<std::string>& arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--");
  return std::find(arguments.begin(), end, "--json") != end;
}

}  // namespace quillmark::cli
