// Log messages as tests compare them: without the source line number that
// many messages carry in their head, so that a message compares the same
// whatever line of the source it comes from.
#ifndef TESTS_UNIT_LOG_LINES_H_
#define TESTS_UNIT_LOG_LINES_H_

#include <ctype.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace testing_support {

// `message` with its source line number replaced by "N": the first number
// written "name(123)", "name (123)" or "name:123(" (the heads "%s(%d)",
// "%s (%d)" and "%s:%d(%s)"), so "main(317): x" -> "main(N): x" and
// "updater:71(UPDTUpdateConfig)" -> "updater:N(UPDTUpdateConfig)". Only the
// first: numbers in parentheses further on (error codes, sizes) stay.
inline std::string WithoutLineNumber(const std::string& message) {
  for (size_t at = 1; at < message.size(); ++at) {
    const char opening = message[at];
    if (opening != '(' && opening != ':') continue;
    const size_t name_end = opening == '(' && message[at - 1] == ' ' ? at - 1 : at;
    const unsigned char last = name_end > 0 ? message[name_end - 1] : ' ';
    if (!isalnum(last) && last != '_') continue;
    size_t end = at + 1;
    while (end < message.size() && isdigit(static_cast<unsigned char>(message[end]))) ++end;
    if (end == at + 1 || end == message.size()) continue;
    if (message[end] != (opening == '(' ? ')' : '(')) continue;
    return message.substr(0, at + 1) + "N" + message.substr(end);
  }
  return message;
}

// The captured messages of `priority` (of every priority when it is
// negative), in order, each WithoutLineNumber.
inline std::vector<std::string> LoggedMessages(int priority = -1) {
  std::vector<std::string> messages;
  for (const SyslogRecord& r : SyslogRecords()) {
    if (priority < 0 || r.first == priority) messages.push_back(WithoutLineNumber(r.second));
  }
  return messages;
}

// Every captured message WithoutLineNumber; one of another priority than
// LOG_ERR has "priority <p>: " in front, so that it fails a comparison with
// an error line.
inline std::vector<std::string> LoggedErrorLines() {
  std::vector<std::string> lines;
  for (const SyslogRecord& r : SyslogRecords()) {
    const std::string head = r.first == LOG_ERR ? "" : "priority " + std::to_string(r.first) + ": ";
    lines.push_back(head + WithoutLineNumber(r.second));
  }
  return lines;
}

}  // namespace testing_support

#endif  // TESTS_UNIT_LOG_LINES_H_
