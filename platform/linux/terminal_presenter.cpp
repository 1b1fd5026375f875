#include "corvane/linux_terminal_presenter.h"

#include <cctype>
#include <optional>
#include <string>
#include <vector>

namespace corvane::linux_platform {

namespace {

// A line of input without its end; absent at end of input.
std::optional<std::string> readLine(std::FILE* in) {
  std::string line;
  int c = 0;
  while ((c = std::fgetc(in)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
  if (c == EOF && line.empty()) return std::nullopt;
  return line;
}

// Control characters (and DEL) shown as "?", so a text cannot move the cursor or recolour.
std::string plain(const std::string& text) {
  std::string out;
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    out.push_back(u < 0x20 && u != '\n' ? '?' : u == 0x7F ? '?' : c);
  }
  return out;
}

std::string colored(const PatternScreen::Label& label, bool colors) {
  const std::string text = plain(label.text);
  if (!colors || !label.color) return text;
  const auto channel = [](double v) {
    return std::to_string(static_cast<int>(std::clamp(v, 0.0, 1.0) * 255.0 + 0.5));
  };
  return "\x1b[38;2;" + channel(label.color->red) + ";" + channel(label.color->green) + ";" +
         channel(label.color->blue) + "m" + text + "\x1b[0m";
}

// "0,1, 2 5" to {0, 1, 2, 5}; absent for anything else or a dot outside the grid.
std::optional<std::vector<uint32_t>> parseDots(const std::string& line, size_t count) {
  std::vector<uint32_t> dots;
  std::string number;
  const auto flush = [&]() -> bool {
    if (number.empty()) return true;
    if (number.size() > 2) return false;
    const unsigned long value = std::stoul(number);
    number.clear();
    if (value >= count) return false;
    dots.push_back(static_cast<uint32_t>(value));
    return true;
  };
  for (char c : line) {
    if (std::isdigit(static_cast<unsigned char>(c))) {
      number.push_back(c);
    } else if (c == ',' || c == ' ' || c == '-') {
      if (!flush()) return std::nullopt;
    } else {
      return std::nullopt;
    }
  }
  if (!flush() || dots.empty()) return std::nullopt;
  return dots;
}

}  // namespace

TerminalPresenter::TerminalPresenter(Scheduler& scheduler, std::FILE* in, std::FILE* out,
                                     bool colors)
    : scheduler_(scheduler), in_(in), out_(out), colors_(colors) {}

TerminalPresenter::~TerminalPresenter() = default;

ScreenPresenter::Handle TerminalPresenter::present(PatternScreen& screen) {
  const Handle handle = next_++;
  shown_.emplace(handle, &screen);
  schedulePrompt(handle);
  return handle;
}

ScreenPresenter::Handle TerminalPresenter::present(TransactionScreen& screen) {
  const Handle handle = next_++;
  shown_.emplace(handle, &screen);
  schedulePrompt(handle);
  return handle;
}

void TerminalPresenter::changed(Handle /*handle*/) {}

void TerminalPresenter::dismiss(Handle handle) {
  shown_.erase(handle);
}

void TerminalPresenter::schedulePrompt(Handle handle) {
  // Never inside present(): the screen learns its handle only when present() returns.
  scheduler_.post([this, alive = std::weak_ptr<bool>(alive_), handle] {
    if (alive.lock()) prompt(handle);
  });
}

void TerminalPresenter::prompt(Handle handle) {
  auto it = shown_.find(handle);
  if (it == shown_.end()) return;
  if (PatternScreen* const* pattern = std::get_if<PatternScreen*>(&it->second)) {
    promptPattern(handle, **pattern);
  } else {
    promptTransaction(*std::get<TransactionScreen*>(it->second));
  }
  if (shown_.count(handle) != 0) schedulePrompt(handle);
}

void TerminalPresenter::promptPattern(Handle handle, PatternScreen& screen) {
  if (std::optional<std::string> alert = screen.alert()) {
    std::fprintf(out_, "\n! %s\n", plain(*alert).c_str());
    screen.dismissAlert();
    return;
  }
  const int side = screen.gridSide();
  screen.layout(300);
  const std::vector<uint32_t> selected = screen.selectedDots();
  std::fprintf(out_, "\n%s\n%s\n\n", colored(screen.title(), colors_).c_str(),
               colored(screen.info(), colors_).c_str());
  for (int row = 0; row < side; ++row) {
    std::fputs("    ", out_);
    for (int column = 0; column < side; ++column) {
      const uint32_t dot = static_cast<uint32_t>(row * side + column);
      const bool taken = std::find(selected.begin(), selected.end(), dot) != selected.end();
      std::fprintf(out_, taken ? "[%2u]" : " %2u ", dot);
    }
    std::fputc('\n', out_);
  }
  if (!screen.buttonEnabled()) {
    // The last try of a round: the screen closes by itself after a moment.
    std::fflush(out_);
    scheduler_.post([] {}, std::chrono::milliseconds(250));
    return;
  }
  std::fprintf(out_,
               "\nDots (e.g. 0,1,2,5,8,7), or b for \"%s\": ", plain(screen.button().text).c_str());
  std::fflush(out_);
  std::optional<std::string> line = readLine(in_);
  if (!line || *line == "b") {
    screen.pressButton();
    return;
  }
  const std::vector<Point> centres = screen.dotCentres();
  std::optional<std::vector<uint32_t>> dots = parseDots(*line, centres.size());
  if (!dots) {
    std::fprintf(out_, "Type dot numbers from 0 to %zu, separated by commas.\n",
                 centres.size() - 1);
    return;
  }
  // A drag through the centres, with a point half-way between, as a finger would move.
  screen.touch(PatternScreen::TouchPhase::began, centres[dots->front()]);
  for (size_t i = 1; i < dots->size() && shown_.count(handle) != 0; ++i) {
    const Point from = centres[(*dots)[i - 1]];
    const Point to = centres[(*dots)[i]];
    screen.touch(PatternScreen::TouchPhase::moved,
                 Point{(from.x + to.x) / 2 + 3, (from.y + to.y) / 2 + 3});
    screen.touch(PatternScreen::TouchPhase::moved, to);
  }
  if (shown_.count(handle) != 0) {
    screen.touch(PatternScreen::TouchPhase::ended, centres[dots->back()]);
  }
}

void TerminalPresenter::promptTransaction(TransactionScreen& screen) {
  std::fprintf(out_, "\nConfirm this transaction:\n\n  %s\n\n[c] %s   [x] %s: ",
               plain(screen.transactionText()).c_str(), plain(screen.confirmTitle()).c_str(),
               plain(screen.cancelTitle()).c_str());
  std::fflush(out_);
  std::optional<std::string> line = readLine(in_);
  if (line && (*line == "c" || *line == "C")) {
    screen.pressConfirm();
  } else if (!line || *line == "x" || *line == "X") {
    screen.pressCancel();
  }
}

}  // namespace corvane::linux_platform
