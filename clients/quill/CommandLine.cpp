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
  void addEverywhere();
  void addSnapshotCommands();
  void addIndex();
  void addDiff();
  void addMountCommands();
  void addLog();
  void addLogOptions(CLI::App* command);
  void addSchedule();
  void addSettings();
  void addServiceCommands();
  CLI::Option* addWords(CLI::App* command, const char* typeName, const char* description);
  [[nodiscard]] std::optional<Request> requestOnSnapshots() const;
  [[nodiscard]] Request request() const;
  [[nodiscard]] TagRequest tagRequest() const;
  [[nodiscard]] LogRequest logRequest() const;
  [[nodiscard]] ScheduleRequest scheduleRequest() const;
  [[nodiscard]] SettingsRequest settingsRequest() const;
  [[nodiscard]] IndexRequest indexRequest() const;
  [[nodiscard]] DiffRequest diffRequest() const;
  [[nodiscard]] static std::optional<std::string> given(const std::string& text);
  [[nodiscard]] std::optional<std::string> volume() const;
  [[nodiscard]] Error misused(const CLI::ParseError& error) const;

  CLI::App app_{std::string(HelpTexts::program.description), "quill"};
  bool json_ = false;
  bool noColor_ = false;
  std::string socket_;
  std::string volume_;
  std::string word_;
  std::string text_;
  std::string since_;
  std::string cursor_;
  std::vector<std::string> words_;
  std::vector<std::string> kinds_;
  ScheduleRequest schedule_;
  std::string lowSpace_, lowSpaceBytes_, protectForeign_, tracked_;
  std::optional<std::size_t> lines_;
  bool full_ = false;
  bool force_ = false;
  bool yes_ = false;
  bool clear_ = false;
  bool failed_ = false;
  bool critical_ = false;
  bool follow_ = false;
  bool waitIndex_ = false;
  bool all_ = false;
  bool local_ = false;
  bool fullScan_ = false;
  bool stat_ = false;
  bool nameOnly_ = false;
  bool tree_ = false;
  CLI::App *volumes_, *list_, *create_, *safety_, *delete_, *protect_, *unprotect_, *tag_, *mount_, *unmount_, *log_,
      *schedules_, *settings_, *plan_, *space_, *notices_, *watch_, *index_, *diff_, *health_, *quit_, *version_,
      *call_;
  CLI::Option* tagText_;
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

CLI::Option* Grammar::addWords(CLI::App* command, const char* typeName, const char* description) {
  return command->add_option("snapshots", words_, description)->type_name(typeName)->required();
}

void Grammar::addEverywhere() {
  app_.footer(std::string(HelpTexts::program.footer));
  app_.require_subcommand(1);
  app_.set_help_flag("-h,--help", "Show help; of one command after its name");
  app_.set_version_flag("--version", "quill " + std::string(clientVersion()), "Show the version of this quill alone");
  app_.add_flag("--json", json_, "Print the value as JSON; an error too, as {\"error\":{…}} on standard output");
  app_.add_flag("--no-color", noColor_, "No colours, also by a NO_COLOR in the environment");
  app_.add_option("--socket", socket_, "")->group("");
}

void Grammar::addSnapshotCommands() {
  volumes_ = add(HelpTexts::volumes);
  volumes_->add_flag("--full", full_, "Cut nothing and leave nothing out on a terminal");
  list_ = addOnVolume(HelpTexts::list);
  list_->add_flag("--full", full_, "Show whole names, also on a terminal");
  create_ = addOnVolume(HelpTexts::create);
  create_->add_option("label", word_, "What to remember it by")->type_name("LABEL");
  create_->add_flag("--wait-index", waitIndex_, "Wait until it is indexed, and show how that goes on");
  safety_ = addOnVolume(HelpTexts::safety);
  safety_->add_option("label", word_, "What to remember it by")->type_name("LABEL");
  delete_ = addOnVolume(HelpTexts::remove);
  addWords(delete_, "SNAPSHOT", "What to delete");
  delete_->add_flag("--force", force_, "Delete protected snapshots too");
  delete_->add_flag("-y,--yes", yes_, "Don't ask");
  protect_ = addOnVolume(HelpTexts::protect);
  addWords(protect_, "SNAPSHOT", "What to protect");
  unprotect_ = addOnVolume(HelpTexts::unprotect);
  addWords(unprotect_, "SNAPSHOT", "What to protect no longer");
  tag_ = addOnVolume(HelpTexts::tag);
  tag_->add_option("snapshot", word_, "What to tag")->type_name("SNAPSHOT")->required();
  tagText_ = tag_->add_option("text", text_, "The tag; without it the tag is printed")->type_name("TEXT");
  tag_->add_flag("--clear", clear_, "Take the tag away")->excludes(tagText_);
}

void Grammar::addIndex() {
  index_ = addOnVolume(HelpTexts::index);
  index_->add_option("action", word_, "\"status\", \"snapshot\" or \"rebuild\"; without it the state is shown")
      ->type_name("ACTION");
  index_->add_option("what", text_, "The snapshot, or the volume to rebuild")->type_name("SNAPSHOT|VOLUME");
  index_->add_flag("--all", all_, "Rebuild every volume");
}

void Grammar::addDiff() {
  diff_ = addOnVolume(HelpTexts::diff);
  diff_->add_option("what", words_, "Two snapshots, or with --local two files or directories")->type_name("A B");
  CLI::Option* local = diff_->add_flag("--local", local_, "Compare two paths as they are now");
  diff_->add_flag("--full-scan", fullScan_, "Read both whole, with what is left out of indexes");
  CLI::Option* subtree = diff_->add_option("--subtree", text_, "Only what changed there, by the index");
  subtree->type_name("PATH")->excludes(local);
  CLI::Option* stat = diff_->add_flag("--stat", stat_, "Only how many changes of each kind");
  CLI::Option* names = diff_->add_flag("--name-only", nameOnly_, "Only the paths")->excludes(stat);
  CLI::Option* tree = diff_->add_flag("--tree", tree_, "What didn't change, too");
  tree->excludes(stat)->excludes(names)->excludes(local)->excludes(subtree);
  diff_->add_option("--kind", kinds_, "Only these: added, deleted, modified, replaced, moved")
      ->type_name("KIND,...")
      ->expected(1)
      ->delimiter(',')
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void Grammar::addMountCommands() {
  mount_ = addOnVolume(HelpTexts::mount);
  addWords(mount_, "SNAPSHOT", "What to mount");
  unmount_ = addOnVolume(HelpTexts::unmount);
  addWords(unmount_, "SNAPSHOT-or-PATH", "What to unmount");
}

void Grammar::addLogOptions(CLI::App* command) {
  CLI::Option* lines = command->add_option("-n,--lines", lines_, "Only the last so many");
  lines->check(CLI::Validator(CLI::NonNegativeNumber).description(""))->type_name("COUNT");
  command->add_option("--since", since_, "Only what happened then or later")->type_name("TIME");
  command->add_option("-v,--volume", volume_, std::string(HelpTexts::logVolumeOption))->type_name("VOLUME");
  command->add_flag("-f,--follow", follow_, "Go on and print what happens, until interrupted");
  command->add_option("--cursor", cursor_, "Only what is new since the last time with this file")->type_name("FILE");
  command->add_flag("--full", full_, "Cut nothing and leave nothing out on a terminal");
}

void Grammar::addLog() {
  log_ = add(HelpTexts::log);
  log_->add_option("--kind", kinds_, "Only these kinds; may be given several times")
      ->type_name("KIND")
      ->expected(1)
      ->delimiter(',')
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  log_->add_flag("--failed", failed_, "Only what failed");
  addLogOptions(log_);
}

void Grammar::addSchedule() {
  schedules_ = addOnVolume(HelpTexts::schedule);
  schedules_->add_option("action", word_, "\"on\", \"off\" or \"set\"; without it the schedule is shown")
      ->type_name("ACTION");
  const auto list = [&](const char* option, std::vector<std::string>& into, const char* type, const char* text) {
    schedules_->add_option(option, into, text)
        ->type_name(type)
        ->expected(1)
        ->delimiter(',')
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  };
  list("--enable", schedule_.enable, "CADENCE,...", "Take such snapshots from now on");
  list("--disable", schedule_.disable, "CADENCE,...", "Take no more of them");
  list("--keep", schedule_.keep, "CADENCE=COUNT,...", "Keep so many of them");
  const auto one = [&](const char* option, std::string& into, const char* type, const char* text) {
    schedules_->add_option(option, into, text)->type_name(type);
  };
  one("--low-space", lowSpace_, "on|off", "Delete old snapshots where space runs low");
  one("--low-space-bytes", lowSpaceBytes_, "SIZE", "Low is less free space than this");
  one("--protect-foreign", protectForeign_, "on|off", "Keep other programs' snapshots out of that");
  one("--tracked", tracked_, "on|off", "Whether anything happens on the volume by itself");
}

void Grammar::addSettings() {
  settings_ = add(HelpTexts::settings);
  settings_->add_option("action", word_, "\"get\", \"set\" or \"edit\"; without it all settings are shown")
      ->type_name("ACTION");
  settings_->add_option("words", words_, "The setting, and its value or values")->type_name("KEY [VALUE...]");
  settings_->add_flag("--full", full_, "Cut no list on a terminal");
}

void Grammar::addServiceCommands() {
  plan_ = addOnVolume(HelpTexts::plan);
  plan_->add_flag("--full", full_, "Show whole names, also on a terminal");
  space_ = add(HelpTexts::space);
  notices_ = add(HelpTexts::notices);
  notices_->add_flag("--critical", critical_, "Only the critical ones");
  addLogOptions(notices_);
  watch_ = add(HelpTexts::watch);
  health_ = add(HelpTexts::health);
  quit_ = add(HelpTexts::quit);
  version_ = add(HelpTexts::version);
  call_ = add(HelpTexts::call);
  call_->add_option("selector", word_, "The call, with its colons")->type_name("SELECTOR")->required();
  call_->add_option("arguments", words_, "Its arguments in order")->type_name("JSON");
}

Grammar::Grammar() {
  addEverywhere();
  addSnapshotCommands();
  addIndex();
  addDiff();
  addMountCommands();
  addLog();
  addSchedule();
  addSettings();
  addServiceCommands();
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

std::optional<Request> Grammar::requestOnSnapshots() const {
  std::vector<std::string> names;
  for (const std::string& word : words_) names.push_back(*unmount_ ? path(word) : name(word));
  if (*delete_) return DeleteRequest{volume(), std::move(names), force_, yes_};
  if (*protect_ || *unprotect_) return ProtectRequest{volume(), std::move(names), static_cast<bool>(*protect_)};
  if (*mount_) return MountRequest{volume(), std::move(names)};
  if (*unmount_) return UnmountRequest{volume(), std::move(names)};
  return std::nullopt;
}

TagRequest Grammar::tagRequest() const {
  TagRequest request{volume(), name(word_), std::nullopt};
  if (clear_) request.text = "";
  if (tagText_->count() > 0) request.text = path(text_);
  return request;
}

std::optional<std::string> Grammar::given(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional(path(text));
}

LogRequest Grammar::logRequest() const {
  LogRequest request{volume(), {}, {}, given(since_), given(cursor_), failed_, follow_, full_};
  request.lines = lines_;
  for (const std::string& kind : kinds_) request.kinds.push_back(unguarded(kind));
  return request;
}

ScheduleAction actionMeant(const std::string& word) {
  if (word.empty()) return ScheduleAction::show;
  if (word == "set") return ScheduleAction::set;
  if (word == "on") return ScheduleAction::on;
  if (word == "off") return ScheduleAction::off;
  throw wrongUse("A schedule can be set \"on\", \"off\", or \"set\", not \"" + nameText(word) + "\".",
                 "See: quill schedule --help");
}

ScheduleRequest Grammar::scheduleRequest() const {
  ScheduleRequest request = schedule_;
  request.volume = volume();
  request.action = actionMeant(unguarded(word_));
  request.lowSpace = given(lowSpace_);
  request.lowSpaceBytes = given(lowSpaceBytes_);
  request.protectForeign = given(protectForeign_);
  request.tracked = given(tracked_);
  for (auto* words : {&request.enable, &request.disable, &request.keep}) {
    for (std::string& word : *words) word = name(word);
  }
  const bool changes = !request.enable.empty() || !request.disable.empty() || !request.keep.empty() ||
                       request.lowSpace || request.lowSpaceBytes || request.protectForeign || request.tracked;
  if (changes && request.action == ScheduleAction::show) {
    throw wrongUse("To change a schedule say so: quill schedule set", "See: quill schedule --help");
  }
  if (!changes && request.action == ScheduleAction::set) {
    throw wrongUse("It isn't said what to set.", "See: quill schedule --help");
  }
  return request;
}

SettingsAction settingsActionMeant(const std::string& word) {
  if (word.empty()) return SettingsAction::show;
  if (word == "get") return SettingsAction::get;
  if (word == "set") return SettingsAction::set;
  if (word == "edit") return SettingsAction::edit;
  throw wrongUse("Settings can be \"get\", \"set\" or \"edit\", not \"" + nameText(word) + "\".",
                 "See: quill settings --help");
}

SettingsRequest Grammar::settingsRequest() const {
  SettingsRequest request{settingsActionMeant(unguarded(word_)), {}, {}, full_};
  std::vector<std::string> words;
  for (const std::string& word : words_) words.push_back(path(word));
  if (request.action == SettingsAction::show) return request;
  if (request.action == SettingsAction::edit) {
    if (words == std::vector<std::string>{"-"}) return request;
    throw wrongUse("quill starts no editor: it reads the changed settings from standard input.",
                   "quill settings --json >s.json; vi s.json; quill settings edit - <s.json");
  }
  if (words.empty()) throw wrongUse("It isn't said which setting.", "See them with: quill settings");
  if (request.action == SettingsAction::get && words.size() > 1) {
    throw wrongUse("One setting at a time.", "To change it: quill settings set");
  }
  request.key = words.front();
  request.values.assign(words.begin() + 1, words.end());
  return request;
}

IndexRequest Grammar::indexRequest() const {
  const auto misuse = [](std::string message) { return wrongUse(std::move(message), "See: quill index --help"); };
  const std::string action = unguarded(word_);
  IndexRequest request{.volume = volume(), .action = IndexAction::status, .snapshot = {}, .all = all_};
  if (action == "snapshot") {
    if (text_.empty()) throw misuse("It isn't said which snapshot to index.");
    request.action = IndexAction::snapshot;
    request.snapshot = name(text_);
  } else if (action == "rebuild") {
    request.action = IndexAction::rebuild;
    if (!text_.empty() && request.volume) throw misuse("The volume is named twice.");
    if (!text_.empty()) request.volume = path(text_);
    if (request.all && request.volume) throw misuse("Either one volume or all.");
  } else if (!action.empty() && action != "status") {
    throw misuse("What to do with the index is \"status\", \"snapshot\" or \"rebuild\", not \"" + nameText(action) +
                 "\".");
  } else if (!text_.empty()) {
    throw misuse("Only \"snapshot\" and \"rebuild\" go with \"" + nameText(unguarded(text_)) + "\".");
  }
  if (request.all && request.action != IndexAction::rebuild) throw misuse("Only \"rebuild\" goes with --all.");
  return request;
}

DiffRequest Grammar::diffRequest() const {
  DiffRequest request{.volume = volume(), .words = {}, .local = local_, .fullScan = fullScan_, .subtree = given(text_)};
  const auto misuse = [](std::string message) { return wrongUse(std::move(message), "See: quill diff --help"); };
  if (local_ && request.volume) throw misuse("Two paths are compared where they are: no volume goes with --local.");
  if (fullScan_ && request.subtree) throw misuse("--subtree goes by the index: --full-scan can't go with it.");
  if (words_.size() != 2) throw misuse(local_ ? "Name two paths to compare." : "Name two snapshots to compare.");
  for (const std::string& word : words_) request.words.push_back(local_ ? path(word) : name(word));
  for (const std::string& kind : kinds_) request.kinds.push_back(unguarded(kind));
  if (stat_) request.form = DiffForm::summary;
  if (nameOnly_) request.form = DiffForm::names;
  if (tree_) request.form = DiffForm::tree;
  return request;
}

Request Grammar::request() const {
  if (*volumes_) return VolumesRequest{full_};
  if (*list_) return ListRequest{volume(), full_};
  if (*create_) return CreateRequest{volume(), path(word_), waitIndex_};
  if (*safety_) return SafetyRequest{volume(), path(word_)};
  if (*tag_) return tagRequest();
  if (*log_) return logRequest();
  if (*schedules_) return scheduleRequest();
  if (*settings_) return settingsRequest();
  if (*plan_) return PlanRequest{volume(), full_};
  if (*space_) return SpaceRequest{};
  if (*watch_) return WatchRequest{};
  if (*notices_) {
    return NoticesRequest{volume(), lines_, given(since_), given(cursor_), critical_, follow_, full_};
  }
  if (*index_) return indexRequest();
  if (*diff_) return diffRequest();
  if (*health_) return HealthRequest{};
  if (*quit_) return QuitRequest{};
  if (*version_) return VersionRequest{};
  if (auto request = requestOnSnapshots()) return *std::move(request);
  std::vector<std::string> arguments;
  for (const std::string& word : words_) arguments.push_back(unguarded(word));
  return CallRequest{unguarded(word_), std::move(arguments)};
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
