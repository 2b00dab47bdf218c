#include "compat/libShellScript.h"

#include <cctype>
#include <utility>

namespace vestrel {

namespace {

bool IsNameCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

/// Reads words one character after the other.
class ScriptReader {
 public:
    ScriptReader(std::string_view script, std::map<std::string, std::string>& variables)
        : script_(script), variables_(variables) {}

    std::vector<ShellCommand> Read() {
        while (at_ < script_.size()) Take(script_[at_]);
        EndCommand();
        return std::move(commands_);
    }

 private:
    void Take(char c) {
        if (quote_ == '\'') {
            ++at_;
            if (c == '\'') {
                quote_ = 0;
            } else {
                word_ += c;
            }
        } else if (c == '\\') {
            TakeBackslash();
        } else if (c == '$') {
            TakeVariable();
        } else if (quote_ == '"') {
            ++at_;
            if (c == '"') {
                quote_ = 0;
            } else {
                word_ += c;
            }
        } else {
            TakePlain(c);
        }
    }

    void TakePlain(char c) {
        ++at_;
        if (c == '\'' || c == '"') {
            quote_ = c;
            inWord_ = true;
            wasQuoted_ = wasQuoted_ || word_.empty();
        } else if (c == '\n' || c == ';') {
            EndCommand();
        } else if (c == ' ' || c == '\t' || c == '\r') {
            EndWord();
        } else if (c == '#' && !inWord_) {
            while (at_ < script_.size() && script_[at_] != '\n') ++at_;
        } else {
            word_ += c;
            inWord_ = true;
        }
    }

    void TakeBackslash() {
        const char next = at_ + 1 < script_.size() ? script_[at_ + 1] : 0;
        // Between double quotes it stays before all but a few signs: paths hold it.
        const bool escapes = quote_ == 0 || next == '"' || next == '\\' || next == '$' ||
                             next == '`' || next == '\n';
        inWord_ = inWord_ || next != '\n';
        if (next == 0 || !escapes) {
            word_ += '\\';
            ++at_;
            return;
        }
        if (next != '\n') word_ += next;
        at_ += 2;
    }

    void TakeVariable() {
        ++at_;
        const bool braces = at_ < script_.size() && script_[at_] == '{';
        if (braces) ++at_;
        std::string name;
        while (at_ < script_.size() && IsNameCharacter(script_[at_])) name += script_[at_++];
        if (braces && at_ < script_.size() && script_[at_] == '}') ++at_;
        std::string value;
        if (name.empty() && !braces) {
            value = "$";
        } else if (const auto found = variables_.find(name); found != variables_.end()) {
            value = found->second;
        }
        // Nothing is a word between quotes only.
        inWord_ = inWord_ || !value.empty();
        word_ += value;
    }

    void EndWord() {
        if (!inWord_) return;
        inWord_ = false;
        std::string word = std::exchange(word_, {});
        const bool quoted = std::exchange(wasQuoted_, false);
        std::size_t length = 0;
        while (length < word.size() && IsNameCharacter(word[length])) ++length;
        const bool assigns = command_.empty() && !quoted && length > 0 && length < word.size() &&
                             word[length] == '=' && (word[0] < '0' || word[0] > '9');
        if (assigns) {
            variables_[word.substr(0, length)] = word.substr(length + 1);
        } else {
            command_.push_back(std::move(word));
        }
    }

    void EndCommand() {
        EndWord();
        if (!command_.empty()) commands_.push_back(std::exchange(command_, {}));
    }

    std::string_view script_;
    std::map<std::string, std::string>& variables_;
    std::size_t at_ = 0;
    char quote_ = 0;
    bool inWord_ = false;
    bool wasQuoted_ = false;  ///< the word began with a quote: it assigns nothing
    std::string word_;
    ShellCommand command_;
    std::vector<ShellCommand> commands_;
};

}  // namespace

std::vector<ShellCommand> CommandsOf(std::string_view script,
                                     std::map<std::string, std::string>& variables) {
    return ScriptReader(script, variables).Read();
}

}  // namespace vestrel
