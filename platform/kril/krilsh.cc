// krilsh: runs one debug-shell command in a running process of this user.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kril_shell.h"

namespace {

void usage(FILE *to) {
    fputs(
        "usage: krilsh [-p PID] [-t SECONDS] MODULE COMMAND [ARG...]\n"
        "       krilsh [-p PID] [-t SECONDS] list\n"
        "       krilsh -m MODULE [-t SECONDS] COMMAND [ARG...] | list\n"
        "Without -p or -m, the only process of this user that serves a debug shell.\n"
        "Prints the command's output, then \"rv N\" with its result; exits 0 when it ran.\n",
        to);
}

bool positive(const char *text, long max, long *out) {
    char *end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v <= 0 || v > max)
        return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    long pid = 0;
    long timeout_s = 10;
    const char *module = nullptr;
    int opt;
    // '+': arguments after the command (say "-5") are not options.
    while ((opt = getopt(argc, argv, "+p:m:t:h")) != -1) {
        switch (opt) {
            case 'p':
                if (!positive(optarg, 0x7fffffff, &pid)) {
                    fprintf(stderr, "krilsh: -p wants a pid, not '%s'\n", optarg);
                    return 2;
                }
                break;
            case 'm':
                module = optarg;
                break;
            case 't':
                if (!positive(optarg, 86400, &timeout_s)) {
                    fprintf(stderr, "krilsh: -t wants seconds, not '%s'\n", optarg);
                    return 2;
                }
                break;
            case 'h':
                usage(stdout);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    const int left = argc - optind;
    const bool list = left == 1 && strcmp(argv[optind], "list") == 0;
    if ((pid != 0 && module != nullptr) || left == 0 || (!list && module == nullptr && left < 2)) {
        usage(stderr);
        return 2;
    }
    std::string request = list || module == nullptr ? "" : std::string(module) + " ";
    for (int i = optind; i < argc; ++i)
        request += (i > optind ? " " : "") + std::string(argv[i]);

    char err[512] = "";
    int32_t target = static_cast<int32_t>(pid);
    if (target == 0 && kril_client_find(module, &target, err, sizeof err) != 0) {
        fprintf(stderr, "krilsh: %s\n", err);
        return 1;
    }
    char *text = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&text, &len);
    if (mem == nullptr) {
        perror("krilsh: open_memstream");
        return 1;
    }
    int32_t rv = 0;
    int32_t code = kril_client_run(target, request.c_str(), static_cast<int32_t>(timeout_s * 1000),
                                   mem, &rv, err, sizeof err);
    fclose(mem);
    fwrite(text, 1, len, stdout);
    if (len > 0 && text[len - 1] != '\n')
        putchar('\n');
    free(text);
    if (code != 0) {
        fflush(stdout);
        fprintf(stderr, "krilsh: %s\n", err);
        return 1;
    }
    if (!list)
        printf("rv %d\n", rv);
    return 0;
}
