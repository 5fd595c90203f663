#include "tools/ladder.h"

#include <stdio.h>
#include <time.h>

#include <sstream>

#include "tools/output.h"

namespace {

constexpr size_t kShownUpdates = 3;  // at each end of a run
constexpr size_t kTimeWidth = 13;
constexpr size_t kStateWidth = 12;  // the longest name of a state
constexpr size_t kArrowWidth = 60;

// Pixels of the picture.
constexpr int kLineHeight = 26;
constexpr int kLeft = 210;
constexpr int kRight = 810;
constexpr int kWidth = 1020;
constexpr int kTop = 60;  // y of the first line, below the title
constexpr int kTitleHeight = 18;
constexpr int kCharacterWidth = 8;   // maximum, for bold ones
constexpr size_t kTitleWidth = 135;  // characters in a line

bool is_good_update(const TraceStep& step) {
  return step.message.starts_with("MSG_UPDATE_") && step.delivered && step.failures.empty();
}

std::string describe(const TraceStep& step) {
  std::string text(step.message);
  if (step.message.starts_with("MSG_UPDATE_")) text += " " + std::to_string(step.sequence_id);
  if (!step.what.empty()) text += " " + step.what;
  if (step.bytes > 0) text += ", " + std::to_string(step.bytes) + " B";
  if (!step.delivered) text += ", not delivered";
  return text;
}

void add_step(const TraceStep& step, std::vector<Rung>* rungs) {
  const bool event = !step.message.starts_with("MSG_");
  rungs->push_back({event ? Rung::kEvent : Rung::kMessage, clock_text(step.time, false),
                    describe(step), step.by_requester, step.delivered,
                    std::string(step.requester_state), std::string(step.responder_state)});
  for (const std::string& failure : step.failures)
    rungs->push_back({Rung::kFailure, "", failure, true, true, "", ""});
}

// The first `width` bytes of a text, at most.
std::string cut(const std::string& text, size_t width) {
  return text.size() <= width ? text : text.substr(0, width - 3) + "...";
}

std::string padded(const std::string& text, size_t width, char with = ' ') {
  return text.size() < width ? text + std::string(width - text.size(), with) : text;
}

// Plain ASCII, with the special characters of XML escaped.
std::string xml_text(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    char code[8];
    if (c < ' ' || c > '~') {
      snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
    } else if (c == '<' || c == '>' || c == '&' || c == '"') {
      snprintf(code, sizeof code, "&#%d;", c);
    } else {
      snprintf(code, sizeof code, "%c", c);
    }
    shown += code;
  }
  return shown;
}

std::string svg_text(int x, int y, const char* attributes, const std::string& text) {
  return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" " + attributes +
         ">" + xml_text(text) + "</text>\n";
}

std::string svg_line(int x1, int y1, int x2, int y2, const std::string& attributes) {
  return "<line x1=\"" + std::to_string(x1) + "\" y1=\"" + std::to_string(y1) + "\" x2=\"" +
         std::to_string(x2) + "\" y2=\"" + std::to_string(y2) + "\" " + attributes + "/>\n";
}

// A white background for a text of this length centred on `x`, so that no line crosses it.
std::string svg_background(int x, int y, size_t characters) {
  const int width = static_cast<int>(characters) * kCharacterWidth + 8;
  return "<rect x=\"" + std::to_string(x - width / 2) + "\" y=\"" + std::to_string(y - 13) +
         "\" width=\"" + std::to_string(width) + "\" height=\"18\" fill=\"white\"/>\n";
}

std::string svg_rung(const Rung& rung, int y) {
  constexpr int kMiddle = (kLeft + kRight) / 2;
  const char* const centred = "text-anchor=\"middle\"";
  const char* const failed = "text-anchor=\"middle\" fill=\"#b00020\" font-weight=\"bold\"";
  std::string svg = svg_text(8, y, "", rung.time) +
                    svg_text(kLeft - 8, y, "text-anchor=\"end\"", rung.requester_state) +
                    svg_text(kRight + 8, y, "", rung.responder_state);
  if (rung.kind == Rung::kFailure) {
    const std::string text = cut(rung.text, 130);
    return svg + svg_background(kMiddle, y, text.size()) + svg_text(kMiddle, y, failed, text);
  }
  if (rung.kind != Rung::kMessage) return svg + svg_text(kMiddle, y, centred, rung.text);
  const int from = rung.to_right ? kLeft : kRight;
  const int to = rung.to_right ? kRight : kLeft;
  return svg + svg_text(kMiddle, y - 5, centred, cut(rung.text, 75)) +
         svg_line(from, y, rung.delivered ? to : kMiddle, y,
                  std::string("stroke=\"") + (rung.delivered ? "#1565c0" : "#b00020") +
                      "\" marker-end=\"url(#head)\"");
}

std::string draw_arrow(const Rung& rung, const std::string& text) {
  const std::string label = " " + cut(text, kArrowWidth - 6) + " ";
  if (rung.kind != Rung::kMessage) return padded(label, kArrowWidth);
  const std::string arrow = padded("--" + label, kArrowWidth - 2, '-');
  if (!rung.delivered) return arrow + " X";
  return rung.to_right ? arrow + "->" : "<-" + arrow;
}

}  // namespace

std::string clock_text(double time, bool date) {
  if (time == 0) return date ? "-" : "";
  if (time < kFirstDate) {  // since boot
    char since_boot[32];
    snprintf(since_boot, sizeof since_boot, "%.3f", time);
    return since_boot;
  }
  const time_t seconds = static_cast<time_t>(time);
  tm parts = {};
  localtime_r(&seconds, &parts);
  char text[32];
  strftime(text, sizeof text, date ? "%Y-%m-%d %H:%M:%S" : "%H:%M:%S", &parts);
  const int milliseconds = static_cast<int>((time - static_cast<double>(seconds)) * 1000);
  if (date || milliseconds == 0) return text;
  return std::string(text) + "." + std::to_string(1000 + milliseconds).substr(1);
}

std::vector<Rung> make_rungs(const TracedExchange& exchange) {
  const std::vector<TraceStep>& steps = exchange.steps;
  std::vector<Rung> rungs;
  for (size_t i = 0; i < steps.size();) {
    size_t end = i;
    size_t dropped = 0;
    while (end < steps.size() && is_good_update(steps[end]))
      dropped += steps[end++].left_out;
    const size_t left_out = end - i > 2 * kShownUpdates + 1 ? end - i - 2 * kShownUpdates : 0;
    for (size_t shown = 0; left_out != 0 && shown < kShownUpdates; ++shown)
      add_step(steps[i++], &rungs);
    if (left_out != 0)
      rungs.push_back({Rung::kLeftOut, "",
                       "... " + std::to_string(left_out + dropped) + " more messages ...", true,
                       true, "", ""});
    i += left_out;
    do {
      add_step(steps[i++], &rungs);
    } while (i < end);
  }
  return rungs;
}

std::string draw_text(const std::vector<Rung>& rungs, const std::string& left,
                      const std::string& right) {
  const std::string indent(kTimeWidth, ' ');
  std::ostringstream drawing;
  drawing << indent << padded(left, kStateWidth + kArrowWidth + 4) << right << "\n";
  for (const Rung& rung : rungs) {
    const std::string text = printable(rung.text);
    if (rung.kind == Rung::kFailure) {
      drawing << indent << ">>> " << text << "\n";
    } else {
      drawing << padded(rung.time, kTimeWidth)
              << padded(printable(rung.requester_state), kStateWidth) << "|"
              << draw_arrow(rung, text) << "| " << printable(rung.responder_state) << "\n";
    }
  }
  return drawing.str();
}

std::string draw_svg(const std::vector<Rung>& rungs, const std::string& title,
                     const std::string& left, const std::string& right) {
  const int title_height = kTitleHeight * static_cast<int>(1 + title.size() / kTitleWidth);
  const int top = title_height + kTop;
  const int height = top + kLineHeight * static_cast<int>(rungs.size()) + 20;
  const std::string size =
      "width=\"" + std::to_string(kWidth) + "\" height=\"" + std::to_string(height) + "\"";
  std::string svg =
      "<svg xmlns=\"http://www.w3.org/2000/svg\" " + size +
      " font-family=\"monospace\" font-size=\"12\">\n"
      "<defs><marker id=\"head\" markerWidth=\"9\" markerHeight=\"8\" refX=\"9\" refY=\"4\" "
      "orient=\"auto\"><path d=\"M0,0 L9,4 L0,8 z\" fill=\"#1565c0\"/></marker></defs>\n"
      "<rect " +
      size + " fill=\"white\"/>\n";
  for (size_t at = 0; at <= title.size(); at += kTitleWidth)
    svg += svg_text(8, kTitleHeight * static_cast<int>(1 + at / kTitleWidth),
                    "font-weight=\"bold\"", title.substr(at, kTitleWidth));
  svg += svg_text(kLeft, top - 28, "text-anchor=\"middle\" font-weight=\"bold\"", left);
  svg += svg_text(kRight, top - 28, "text-anchor=\"middle\" font-weight=\"bold\"", right);
  for (const int x : {kLeft, kRight})
    svg += svg_line(x, top - 22, x, height - 10, "stroke=\"#555\"");
  int y = top;
  for (const Rung& rung : rungs) {
    svg += svg_rung(rung, y);
    y += kLineHeight;
  }
  return svg + "</svg>\n";
}
