// The shell's wire protocol, both ends of it: one request line from the
// operator, then "run", "out <n>" with n bytes, "rv <result>" or
// "err <code> <text>" lines back (kril_shell.h describes the grammar).
#ifndef KRIL_PROTOCOL_H
#define KRIL_PROTOCOL_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kril {

// What a request line says.
struct RequestLine {
    std::string module, cmd, arg;
};
// The first two blank-separated words and the rest without its surrounding
// blanks; a trailing '\r' is not part of the line.
RequestLine split_request(std::string_view line);

// Sent when the serving thread picks a request up.
inline constexpr std::string_view kRunLine = "run\n";
// "err <code> <text>\n"; line breaks in text become blanks.
std::string error_line(int32_t code, std::string text);
// "out <n>\n" <output> "rv <rv>\n".
std::string output_answer(std::string_view output, int32_t rv);
// The text of the error line for a request the registry refused with code;
// argfmt is the command's format, when it has one.
std::string error_text(int32_t code, const std::string &module, const std::string &cmd,
                       const std::string &arg, const std::string &argfmt);

// One line of an answer (its newline removed), as the client reads it.
struct AnswerLine {
    enum Kind {
        kRun,     // the command started
        kError,   // value: the KRIL_E_ code, text: the reason
        kOutput,  // value: the byte count that follows
        kResult,  // value: the handler's result; the answer is complete
        kBadError,
        kUnexpected
    } kind;
    int32_t value = 0;
    std::string_view text;  // into the parsed line
};
AnswerLine parse_answer_line(std::string_view line);

// Writes everything, without SIGPIPE; false when the peer is gone.
bool send_all(int fd, std::string_view data, int flags = 0);

}  // namespace kril

#endif  // KRIL_PROTOCOL_H
