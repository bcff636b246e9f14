#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "quill/EarlyConnection.h"

namespace quillmark::cli {
namespace {

std::map<std::string, std::string> environmentNow() {
  std::map<std::string, std::string> all;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string text = *entry;
    all[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
  }
  return all;
}

class Environment : public testing::Test {
 protected:
  ~Environment() override { restore(before_); }
  static void restore(const std::map<std::string, std::string>& values) {
    ::clearenv();
    for (const auto& [name, value] : values) ::setenv(name.c_str(), value.c_str(), 1);
  }
  const std::map<std::string, std::string> before_ = environmentNow();
};

TEST_F(Environment, keepsOnlyWhatTheOutputIsChosenBy) {
  restore({{"TERM", "xterm-256color"},
           {"NO_COLOR", "1"},
           {"LANG", "de_DE.UTF-8@euro"},
           {"LC_TIME", "C"},
           {"TZ", "America/Argentina/Buenos_Aires"},
           {"HOME", "/home/ida"},
           {"LD_LIBRARY_PATH", "/home/ida"},
           {"ICU_DATA", "/home/ida"},
           {"PAGER", "evil"},
           {"LESS", "-i"},
           {"PATH", "/home/ida/bin"},
           {"LOCPATH", "/home/ida"}});
  const PagerWish pager = keepHarmlessEnvironment();
  EXPECT_EQ(pager.program, "evil") << "for when it can do no harm";
  EXPECT_EQ(pager.options, "-i");
  EXPECT_EQ(environmentNow(), (std::map<std::string, std::string>{{"TERM", "xterm-256color"},
                                                                  {"NO_COLOR", "1"},
                                                                  {"LANG", "de_DE.UTF-8@euro"},
                                                                  {"LC_TIME", "C"},
                                                                  {"TZ", "America/Argentina/Buenos_Aires"},
                                                                  {"PATH", "/usr/local/bin:/usr/bin:/bin"}}));
}

TEST_F(Environment, dropsValuesThatNameFilesOrAreNoPlainNames) {
  const std::pair<const char*, const char*> table[] = {{"TZ", "/etc/shadow"},
                                                       {"TZ", ":/etc/shadow"},
                                                       {"TZ", "../../etc/shadow"},
                                                       {"TZ", "Europe/../../etc/shadow"},
                                                       {"LANG", "/tmp/evil"},
                                                       {"TERM", "../evil"},
                                                       {"TERM", "a b"},
                                                       {"LANG", "$(evil)"},
                                                       {"COLUMNS", "-1"}};
  for (const auto& [name, value] : table) {
    restore({{name, value}});
    (void)keepHarmlessEnvironment();
    EXPECT_FALSE(std::getenv(name)) << name << "=" << value;
  }
  restore({{"TZ", std::string(1000, 'a')}});
  (void)keepHarmlessEnvironment();
  EXPECT_FALSE(std::getenv("TZ"));
}

}  // namespace
}  // namespace quillmark::cli
