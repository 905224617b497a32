// The whole terminal, by ncurses(3). The only file that knows it.
#pragma once

#include <cstddef>
#include <vector>

#include "lbctl/watch_view.h"

namespace lbctl {

enum class Key { kNone, kOther, kQuit, kUp, kDown, kPageUp, kPageDown, kHome, kEnd };

// Takes the terminal, and gives it back as it was when the object goes. One at a time.
class TerminalScreen {
 public:
  // A Failure (kExitUsage) when standard input and output are no terminal, or its type is unknown.
  TerminalScreen();
  ~TerminalScreen();
  TerminalScreen(const TerminalScreen&) = delete;
  TerminalScreen& operator=(const TerminalScreen&) = delete;

  // Draws the head, and of the body what fits from line `first` on, which is brought down to where
  // the last line is still in view. In the terminal's present size.
  void show(const std::vector<ViewLine>& head, const std::vector<ViewLine>& body, size_t& first);

  // A key that was pressed; kNone without waiting when there is none. A new size of the terminal is
  // kOther.
  Key read_key();

  // Lines of the body that the last show() had room for.
  size_t page() const { return page_; }

 private:
  void draw(int row, const ViewLine& line) const;

  void* screen_ = nullptr;  // SCREEN
  bool colours_ = false;
  size_t page_ = 1;
};

}  // namespace lbctl
