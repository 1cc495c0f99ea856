#include "CodeSigning.h"

#include <filesystem>
#include <fstream>
#include <set>

#include "Runtime.h"

namespace {

std::set<std::string> signatureOf(pid_t process) {
  std::error_code error;
  std::string program =
      std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe", error);
  constexpr std::string_view mark = " (deleted)";
  if (program.ends_with(mark)) program.resize(program.size() - mark.size());
  std::set<std::string> lines;
  std::ifstream file(program + ".signature");
  for (std::string line; std::getline(file, line);) lines.insert(line);
  return lines;
}

/// The requirement language, as far as the helper uses it.
class Evaluation {
 public:
  Evaluation(std::string_view text, const std::set<std::string>& signature)
      : all_(text), left_(text), signature_(signature) {}

  bool result() {
    const bool isMet = disjunction();
    if (!left_.empty()) fail();
    return isMet;
  }

 private:
  [[noreturn]] void fail() const {
    runtime::fault("a malformed requirement: " + std::string(all_));
  }

  bool take(std::string_view words) {
    if (!left_.starts_with(words)) return false;
    left_.remove_prefix(words.size());
    while (left_.starts_with(' ')) left_.remove_prefix(1);
    return true;
  }
  void need(std::string_view words) {
    if (!take(words)) fail();
  }
  std::string upTo(char end) {
    const auto length = left_.find(end);
    if (length == std::string_view::npos) fail();
    const std::string text(left_.substr(0, length));
    left_.remove_prefix(length);
    need(std::string_view(&end, 1));
    return text;
  }

  // Both sides of an operator are read, whatever the first one says.
  bool disjunction() {
    bool isMet = conjunction();
    while (take("or ")) isMet |= conjunction();
    return isMet;
  }
  bool conjunction() {
    bool isMet = condition();
    while (take("and ")) isMet &= condition();
    return isMet;
  }
  bool condition() {
    if (take("(")) {
      const bool isMet = disjunction();
      need(")");
      return isMet;
    }
    if (take("anchor apple generic")) return signature_.contains("anchor apple");
    if (take("identifier \"")) return signature_.contains("identifier " + upTo('"'));
    if (take("certificate leaf[field.")) return signature_.contains("field " + upTo(']'));
    if (take("certificate leaf[subject.OU] = \"")) return signature_.contains("unit " + upTo('"'));
    fail();
  }

  const std::string_view all_;
  std::string_view left_;
  const std::set<std::string>& signature_;
};

}  // namespace

bool code_signing::meets(pid_t process, std::string_view requirement) {
  const auto signature = signatureOf(process);
  return Evaluation(requirement, signature).result();
}
