#include "lbctl/trace_line.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>

namespace lbctl {

namespace {

// So many seconds fit in nanoseconds, and times since 1970 too.
constexpr int64_t kMostSeconds = 9'000'000'000;

bool is_blank(char character) { return character == ' ' || character == '\t'; }

// Takes words from the front of a line.
class Words {
 public:
  explicit Words(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

  // False at the end of the line, or of what a comment leaves of it.
  bool next(std::string_view& word) {
    while (at_ != end_ && is_blank(*at_)) ++at_;
    if (at_ == end_ || *at_ == '#') return false;
    const char* const start = at_;
    if (*start == '"') {
      const char* const quote = std::find(start + 1, end_, '"');
      if (quote != end_ && (quote + 1 == end_ || is_blank(quote[1]))) {
        at_ = quote + 1;
        word = {start + 1, static_cast<size_t>(quote - start - 1)};
        return true;
      }
    }
    while (at_ != end_ && !is_blank(*at_)) ++at_;
    word = {start, static_cast<size_t>(at_ - start)};
    return true;
  }

  const char* position() const { return at_; }

 private:
  const char* at_;
  const char* end_;
};

bool parse_number(std::string_view text, int32_t& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

const char* parse_outcome(Words& words, TraceLine& line) {
  std::string_view word;
  if (!words.next(word)) return "the outcome is missing: ok or fail";
  if (word != "ok" && word != "fail") return "the outcome is neither ok nor fail";
  line.is_good = word == "ok";
  return nullptr;
}

const char* parse_figures(Words& words, TraceLine& line) {
  for (int32_t* const figure : {&line.loss, &line.rtt, &line.jitter}) {
    std::string_view word;
    if (!words.next(word)) return "a figure is missing: LOSS RTT JITTER";
    if (!parse_number(word, *figure))
      return "a figure is no whole number: LOSS in percent, RTT and JITTER in milliseconds";
  }
  if (line.loss < 0 || line.loss > 100) return "the loss is not from 0 to 100 percent";
  if (line.rtt < 0 || line.jitter < 0) return "a time is negative: RTT and JITTER in milliseconds";
  return nullptr;
}

const char* parse_address_word(Words& words, TraceLine& line) {
  if (!words.next(line.address)) return "the next hop is missing: an address, or - for none";
  if (line.address == "-") line.address = {};
  return nullptr;
}

}  // namespace

bool parse_trace_time(std::string_view text, int64_t& time) {
  const char* at = text.data();
  const char* const end = at + text.size();
  if (at == end || *at < '0' || *at > '9') return false;  // from_chars takes a sign
  int64_t seconds = 0;
  const auto [stop, error] = std::from_chars(at, end, seconds);
  if (error != std::errc() || seconds > kMostSeconds) return false;
  at = stop;
  int64_t fraction = 0;
  if (at != end) {
    if (*at++ != '.' || at == end) return false;
    int64_t unit = kNanosecondsPerSecond;
    for (; at != end; ++at) {
      if (*at < '0' || *at > '9') return false;
      unit /= 10;  // 0 from the tenth digit on
      fraction += unit * (*at - '0');
    }
  }
  time = seconds * kNanosecondsPerSecond + fraction;
  return true;
}

const char* parse_trace_line(std::string_view text, TraceLine& line) {
  line.kind = TraceKind::kNothing;
  Words words(text);
  std::string_view word;
  if (!words.next(word)) return nullptr;
  if (!parse_trace_time(word, line.time)) return "the line does not begin with a time in seconds";
  if (!words.next(word)) return "the event is missing: probe, burst or nexthop";
  TraceKind kind = TraceKind::kNothing;
  if (word == "probe") kind = TraceKind::kProbe;
  if (word == "burst") kind = TraceKind::kBurst;
  if (word == "nexthop") kind = TraceKind::kNexthop;
  if (kind == TraceKind::kNothing) return "the event is none of probe, burst and nexthop";

  const char* const start = words.position();
  if (!words.next(line.interface)) return "the interface is missing";
  line.target = {};
  if (kind != TraceKind::kNexthop && !words.next(line.target)) return "the target is missing";
  line.subject = {start, static_cast<size_t>(words.position() - start)};

  const char* const fault = kind == TraceKind::kProbe   ? parse_outcome(words, line)
                            : kind == TraceKind::kBurst ? parse_figures(words, line)
                                                        : parse_address_word(words, line);
  if (fault != nullptr) return fault;
  if (words.next(word)) return "there are more words than the event has";
  line.kind = kind;
  return nullptr;
}

bool is_trace_address(std::string_view text, bool ipv6) {
  in6_addr address{};
  return inet_pton(ipv6 ? AF_INET6 : AF_INET, std::string(text).c_str(), &address) == 1;
}

std::string trace_word(std::string_view word) {
  const auto is_control = [](char character) {
    return static_cast<unsigned char>(character) < ' ';
  };
  if (std::any_of(word.begin(), word.end(), is_control)) return {};
  const bool has_blank = word.find(' ') != std::string_view::npos;
  if (!word.empty() && !has_blank && word.front() != '"' && word.front() != '#')
    return std::string(word);
  // A quote within it would end it.
  if (word.find('"') != std::string_view::npos) return {};
  return '"' + std::string(word) + '"';
}

}  // namespace lbctl
