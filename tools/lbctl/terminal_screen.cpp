#include "lbctl/terminal_screen.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#define NCURSES_NOMACROS 1
#include <curses.h>
#include <fmt/format.h>
#include <term.h>

#include "lbctl/command.h"

namespace lbctl {

namespace {

constexpr short kGreenPair = 1;
constexpr short kRedPair = 2;
constexpr short kYellowPair = 3;

attr_t attribute_of(Colour colour, bool colours) {
  switch (colour) {
    case Colour::kGreen:
      return colours ? COLOR_PAIR(kGreenPair) : A_NORMAL;
    case Colour::kRed:
      return colours ? COLOR_PAIR(kRedPair) : A_NORMAL;
    case Colour::kYellow:
      return colours ? COLOR_PAIR(kYellowPair) : A_NORMAL;
    case Colour::kBold:
      return A_BOLD;
    case Colour::kDim:
      return A_DIM;
  }
  return A_NORMAL;
}

// False where there are none, or none are wanted.
bool start_colours() {
  if (!wants_colour() || !has_colors() || start_color() == ERR) return false;
  const short background = use_default_colors() == OK ? -1 : COLOR_BLACK;
  init_pair(kGreenPair, COLOR_GREEN, background);
  init_pair(kRedPair, COLOR_RED, background);
  init_pair(kYellowPair, COLOR_YELLOW, background);
  return true;
}

}  // namespace

TerminalScreen::TerminalScreen() {
  if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
    throw usage_error(
        "--watch needs a terminal as standard input and output; for scripts there is --json");
  }
  // Asked first: what newterm() has got together for an unknown type it does not give back.
  int found = 0;
  if (setupterm(nullptr, STDOUT_FILENO, &found) == OK) {
    del_curterm(cur_term);
    screen_ = newterm(nullptr, stdout, stdin);
  }
  if (screen_ == nullptr) {
    const char* const type = std::getenv("TERM");
    throw usage_error(fmt::format("--watch: the terminal's type (TERM={}) is not known",
                                  type == nullptr ? "" : type));
  }
  cbreak();
  noecho();
  curs_set(0);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(25);
  colours_ = start_colours();
}

TerminalScreen::~TerminalScreen() {
  endwin();
  delscreen(static_cast<SCREEN*>(screen_));
}

void TerminalScreen::draw(int row, const ViewLine& line) const {
  int column = 0;
  const int width = getmaxx(stdscr);
  move(row, 0);
  for (const TextPart& part : line.line.parts) {
    attr_t attribute = part.colour ? attribute_of(*part.colour, colours_) : A_NORMAL;
    if (line.marked) attribute |= A_REVERSE;
    attrset(static_cast<int>(attribute));
    const int length = std::min(static_cast<int>(part.text.size()), width - column);
    if (length <= 0) break;
    addnstr(part.text.c_str(), length);
    column += length;
  }
  attrset(A_NORMAL);
}

void TerminalScreen::show(const std::vector<ViewLine>& head, const std::vector<ViewLine>& body,
                          size_t& first) {
  const auto rows = static_cast<size_t>(std::max(getmaxy(stdscr), 0));
  const size_t head_rows = std::min(head.size(), rows);
  page_ = std::max<size_t>(rows - head_rows, 1);
  first = std::min(first, body.size() - std::min(body.size(), page_));
  erase();
  int row = 0;
  for (size_t at = 0; at < head_rows; ++at) draw(row++, head[at]);
  for (size_t at = first; at < body.size() && static_cast<size_t>(row) < rows; ++at)
    draw(row++, body[at]);
  refresh();
}

Key TerminalScreen::read_key() {
  switch (getch()) {
    case ERR:
      return Key::kNone;
    case 'q':
    case 'Q':
      return Key::kQuit;
    case KEY_UP:
    case 'k':
      return Key::kUp;
    case KEY_DOWN:
    case 'j':
      return Key::kDown;
    case KEY_PPAGE:
      return Key::kPageUp;
    case KEY_NPAGE:
    case ' ':
      return Key::kPageDown;
    case KEY_HOME:
      return Key::kHome;
    case KEY_END:
      return Key::kEnd;
    default:
      return Key::kOther;
  }
}

}  // namespace lbctl
