#include "lbctl/check_outline.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <fmt/format.h>

namespace lbctl {

namespace {

constexpr size_t kDeepest = 31;

// A piece of a line between brackets.
struct Segment {
  std::vector<Word> words;
  const ReadLine* line = nullptr;
};

// "eth0{" as "eth0" and "{": the reader knows a bracket only as a word of its own.
std::vector<Word> split_at_braces(const Word& word) {
  std::vector<Word> parts;
  Place place = word.place;
  std::string rest = word.text;
  while (!rest.empty()) {
    const size_t brace = rest.find_first_of("{}");
    const size_t size = brace == 0 ? 1 : std::min(brace, rest.size());
    const std::string part = rest.substr(0, size);
    if (part != ";") parts.push_back({place, part, false});
    place.column += static_cast<int>(size);
    rest.erase(0, size);
  }
  return parts;
}

class Builder {
 public:
  Builder(const std::vector<ReadLine>& lines, Findings& findings)
      : lines_(lines), findings_(findings) {}

  std::vector<Node> build() {
    count_unmatched();
    for (size_t i = 0; i < lines_.size(); ++i) {
      // What is cut off a line was told; it says nothing of what is meant.
      if (lines_[i].continues) continue;
      if (lines_[i].words.empty()) continue;
      brace_follows_ = begins_with_brace(i + 1);
      read(lines_[i]);
    }
    for (size_t depth = stack_.size(); depth-- > 0;) tell_open(*stack_[depth]);
    while (!stack_.empty()) close();
    return std::move(top_);
  }

 private:
  // The words as they are meant.
  std::vector<Word> parts_of(const ReadLine& line, Findings* findings) const {
    std::vector<Word> parts;
    for (const Word& word : line.words) {
      const size_t brace = word.text.find_first_of("{}");
      if (word.in_quotes || brace == std::string::npos) {
        if (word.in_quotes && word.is_brace() && findings != nullptr) {
          findings->add(word.place, "brackets",
                        fmt::format("the daemon takes the '{}' in quotes for a bracket", word.text),
                        "write the value without brackets that stand alone");
        }
        parts.push_back(word);
      } else if (word.is_brace()) {
        parts.push_back(word);
      } else {
        if (findings != nullptr) {
          findings->add(
              {word.place.line, word.place.column + static_cast<int>(brace)}, "brackets",
              fmt::format("'{}': the daemon knows a bracket only as a word of its own", word.text),
              "put a blank between the bracket and the text, or a line end behind it");
        }
        for (Word& part : split_at_braces(word)) parts.push_back(std::move(part));
      }
    }
    return parts;
  }

  // How many brackets of either kind have no partner.
  void count_unmatched() {
    for (const ReadLine& line : lines_) {
      if (line.continues) continue;
      for (const Word& word : parts_of(line, nullptr)) {
        if (word.in_quotes || !word.is_brace()) continue;
        if (word.text == "{") {
          ++missing_closers_;
        } else if (missing_closers_ > 0) {
          --missing_closers_;
        } else {
          ++missing_openers_;
        }
      }
    }
  }

  // Whether that is the first word of the next line that has any.
  bool begins_with_brace(size_t index) const {
    while (index < lines_.size() && (lines_[index].continues || lines_[index].words.empty()))
      ++index;
    return index < lines_.size() && lines_[index].words.front().text.starts_with('{');
  }

  void read(const ReadLine& line) {
    const std::vector<Word> parts = parts_of(line, &findings_);
    if (parts.empty()) return;
    tell_text_beside_brackets(parts);
    Segment segment{{}, &line};
    bool first = true;
    for (const Word& word : parts) {
      if (word.in_quotes || !word.is_brace()) {
        segment.words.push_back(word);
        continue;
      }
      if (word.text == "{") {
        if (segment.words.empty()) {
          open_alone(word, first);
        } else {
          open(node_of(segment, true), word);
        }
      } else {
        if (!segment.words.empty()) add(node_of(segment, false));
        close_one(word);
      }
      segment.words.clear();
      first = false;
    }
    if (!segment.words.empty()) add(node_of(segment, false));
  }

  void tell_text_beside_brackets(const std::vector<Word>& parts) {
    bool opened = false;
    const Word* text = nullptr;
    for (const Word& word : parts) {
      const bool is_brace = !word.in_quotes && word.is_brace();
      if (!is_brace) {
        if (text == nullptr) text = &word;
        if (!opened) continue;
        text = &word;
      } else if (word.text == "{") {
        opened = true;
        text = nullptr;
        continue;
      } else if (text == nullptr) {
        continue;
      }
      findings_.add(text->place, "text-on-block-line",
                    fmt::format("'{}' stands on the line of a block's bracket: the daemon passes "
                                "over it, or takes the line for another one",
                                text->text),
                    "write the keyword on a line of its own between those of '{' and '}'");
      return;
    }
  }

  Context context() const { return stack_.empty() ? Context::kFile : stack_.back()->inside(); }

  Node node_of(const Segment& segment, bool is_block) {
    Node node;
    node.key = segment.words.front();
    node.is_block = is_block;
    recover(node);
    node.context = context();
    node.keyword = find_keyword(node.context, node.key.text);
    take_value(segment, node);
    return node;
  }

  // Where a closing bracket is missing, a block that can only stand further out tells where.
  void recover(const Node& node) {
    if (missing_closers_ == 0 || !node.is_block) return;
    if (find_keyword(context(), node.key.text) != nullptr) return;
    size_t depth = stack_.size();
    while (depth > 0) {
      --depth;
      const Context outer = depth == 0 ? Context::kFile : stack_[depth - 1]->inside();
      const Keyword* const keyword = find_keyword(outer, node.key.text);
      if (keyword == nullptr || !keyword->may_open) continue;
      if (stack_.size() + too_deep_ - depth > missing_closers_) return;
      missing_closers_ -= std::exchange(too_deep_, 0);
      while (stack_.size() > depth) {
        tell_open(*stack_.back());
        close();
        --missing_closers_;
      }
      return;
    }
  }

  void take_value(const Segment& segment, Node& node) {
    const std::vector<Word>& words = segment.words;
    node.value_place = node.place();
    if (words.size() < 2) return;
    node.value_place = words[1].place;
    const std::string& text = segment.line->text;
    const size_t first = text.find('"');
    const auto offset = static_cast<size_t>(words[1].place.column - segment.line->place.column);
    if (first == std::string::npos) {
      node.value = words[1].text;
      if (words.size() > 2) tell_extra(words[2], node);
      return;
    }
    const size_t last = text.rfind('"');
    if (first == last) {  // said where quotes are looked at
      node.value = words[1].text;
      std::erase(node.value, '"');
      return;
    }
    node.value = text.substr(first + 1, last - first - 1);
    if (std::count(text.begin(), text.end(), '"') % 2 != 0) return;  // the same
    const auto behind = std::find_if(words.begin(), words.end(), [&](const Word& word) {
      return static_cast<size_t>(word.place.column - segment.line->place.column) > last;
    });
    const size_t end = text.find_first_of(" \t~", last);
    const bool glued = end != last + 1 && last + 1 != text.size();
    if (offset != first || glued || node.value.find('"') != std::string::npos) {
      tell_extra(words[1], node);
    } else if (behind != words.end()) {
      tell_extra(*behind, node);
    }
  }

  void tell_extra(const Word& word, const Node& node) {
    if (node.keyword == nullptr) return;  // there is more to say of it
    if (node.context == Context::kOptions) return;
    if (node.keyword->value == ValueKind::kNumber) {
      findings_.add(node.value_place, "bad-number",
                    fmt::format("'{}' follows the number of '{}': the daemon passes over it",
                                word.text, node.key.text),
                    "write the number alone, without a unit or a sign at its end");
    } else {
      findings_.add(word.place, "extra-text",
                    fmt::format("the daemon takes '{}' for the value of '{}' and passes over the "
                                "rest of the line",
                                node.value, node.key.text),
                    "write one keyword with one value on a line; a value with blanks in quotes");
    }
  }

  std::vector<Node>& here() { return stack_.empty() ? top_ : stack_.back()->children; }

  void add(Node node) {
    const bool lacks_brace = node.keyword != nullptr && node.keyword->must_open && !brace_follows_;
    if (lacks_brace) {
      findings_.add(node.place(), "brackets",
                    fmt::format("'{}' begins a block, and its '{{' is missing: the daemon does not "
                                "see the block",
                                node.key.text),
                    "end the line with '{', and the block with a '}' on a line of its own");
      if (missing_openers_ > 0) {
        --missing_openers_;
        node.is_block = true;
        const Word key = node.key;
        open(std::move(node), key);
        return;
      }
    }
    if (too_deep_ > 0) return;
    here().push_back(std::move(node));
    last_is_statement_ = true;
  }

  void open(Node node, const Word& brace) {
    last_is_statement_ = false;
    if (stack_.size() < kDeepest) {
      stack_.push_back(std::make_unique<Node>(std::move(node)));
      return;
    }
    ++too_deep_;
    if (!std::exchange(too_deep_told_, true)) {
      findings_.add(brace.place, "brackets",
                    "blocks stand in one another more than 31 deep: the daemon reads no further",
                    "no block of a configuration stands deeper than 5");
    }
  }

  void open_alone(const Word& brace, bool first) {
    std::vector<Node>& nodes = here();
    const bool belongs = first && last_is_statement_ && !nodes.empty();
    Node node;
    node.key = brace;
    node.context = context();
    if (belongs) {
      node = std::move(nodes.back());
      nodes.pop_back();
    }
    node.is_block = true;
    if (std::exchange(line_of_last_alone_, brace.place.line) != brace.place.line) {
      findings_.add(brace.place, "brace-alone",
                    belongs
                        ? fmt::format("the '{{' of '{}' stands on a line of its own: the daemon "
                                      "opens a block that has no keyword",
                                      node.key.text)
                        : "the '{' has no keyword before it: the daemon opens a block that it has "
                          "no use for",
                    "put the '{' at the end of the line with the block's keyword");
    }
    open(std::move(node), brace);
  }

  void close_one(const Word& brace) {
    last_is_statement_ = false;
    if (too_deep_ > 0) {
      --too_deep_;
    } else if (!stack_.empty()) {
      close();
    } else if (!extra_told_) {
      extra_told_ = true;
      findings_.add(brace.place, "brackets",
                    "the '}' closes no block: the daemon stops here, and what follows is not read",
                    "take it away, or put the '{' to the block's keyword that lacks it");
    }
  }

  void close() {
    const std::unique_ptr<Node> node = std::move(stack_.back());
    stack_.pop_back();
    here().push_back(std::move(*node));
    last_is_statement_ = false;
  }

  void tell_open(const Node& node) {
    findings_.add(node.place(), "brackets",
                  fmt::format("the block of '{}' is never closed: the daemon takes all that "
                              "follows for a part of it",
                              node.key.text),
                  "put a '}' on a line of its own where the block ends");
  }

  const std::vector<ReadLine>& lines_;
  Findings& findings_;
  std::vector<std::unique_ptr<Node>> stack_;  // the open blocks, kDeepest at most
  size_t too_deep_ = 0;                       // open blocks within these, which nobody reads
  bool too_deep_told_ = false;
  std::vector<Node> top_;
  size_t missing_closers_ = 0;
  size_t missing_openers_ = 0;
  bool brace_follows_ = false;      // on the next line
  bool last_is_statement_ = false;  // so that a bracket on the next line may be meant for it
  bool extra_told_ = false;
  int line_of_last_alone_ = 0;
};

}  // namespace

std::vector<Node> read_outline(const std::vector<ReadLine>& lines, Findings& findings) {
  return Builder(lines, findings).build();
}

}  // namespace lbctl
