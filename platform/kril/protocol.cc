#include "protocol.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "common/parse_int.h"
#include "kril_shell.h"

namespace kril {

RequestLine split_request(std::string_view line) {
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    size_t p = 0;
    auto word = [&] {
        while (p < line.size() && blank(line[p]))
            ++p;
        size_t start = p;
        while (p < line.size() && !blank(line[p]))
            ++p;
        return std::string(line.substr(start, p - start));
    };
    RequestLine r;
    r.module = word();
    r.cmd = word();
    while (p < line.size() && blank(line[p]))
        ++p;
    size_t last = line.size();
    while (last > p && blank(line[last - 1]))
        --last;
    r.arg.assign(line.substr(p, last - p));
    return r;
}

std::string error_line(int32_t code, std::string text) {
    for (char &c : text) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return "err " + std::to_string(code) + " " + text + "\n";
}

std::string output_answer(std::string_view output, int32_t rv) {
    return "out " + std::to_string(output.size()) + "\n" + std::string(output) + "rv " +
           std::to_string(rv) + "\n";
}

std::string error_text(int32_t code, const std::string &module, const std::string &cmd,
                       const std::string &arg, const std::string &argfmt) {
    switch (code) {
        case KRIL_E_NO_MODULE:
            return "no module '" + module + "' in pid " + std::to_string(getpid());
        case KRIL_E_NO_COMMAND:
            return "module '" + module + "' has no command '" + cmd + "'";
        case KRIL_E_BAD_ARG:
            if (argfmt == "%d")
                return "command '" + cmd + "' takes a decimal integer (format %d), not '" + arg +
                       "'";
            if (argfmt == "url=%s")
                return "command '" + cmd + "' takes url=<text> (format url=%s), not '" + arg + "'";
            return "command '" + cmd + "' takes no argument (format void), not '" + arg + "'";
        case KRIL_E_NOMEM:
            return "out of memory";
        default:
            return "error " + std::to_string(code);
    }
}

AnswerLine parse_answer_line(std::string_view line) {
    AnswerLine a{AnswerLine::kUnexpected, 0, {}};
    if (line == "run") {
        a.kind = AnswerLine::kRun;
    } else if (line.starts_with("err ")) {
        const size_t sp = line.find(' ', 4);
        a.kind = AnswerLine::kBadError;
        if (sp != std::string_view::npos && qzplat::parse_int(line.substr(4, sp - 4), &a.value) &&
            a.value < 0) {
            a.kind = AnswerLine::kError;
            a.text = line.substr(sp + 1);
        }
    } else if (line.starts_with("out ") && qzplat::parse_int(line.substr(4), &a.value) &&
               a.value >= 0) {
        a.kind = AnswerLine::kOutput;
    } else if (line.starts_with("rv ") && qzplat::parse_int(line.substr(3), &a.value)) {
        a.kind = AnswerLine::kResult;
    }
    return a;
}

bool send_all(int fd, std::string_view data, int flags) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, flags | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace kril
