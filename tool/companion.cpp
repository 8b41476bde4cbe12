// The command line the companion programs share with kelvo: its options
// -f, -R and -S, its refusals and their order.
#include <getopt.h>
#include <libgen.h>
#include <libintl.h>

#include <cstdio>
#include <cstdlib>

#include "kelvo_tool.h"

namespace {

// Reads the options; false after a refusal of getopt's or of take.
bool read_options(int argc, char** argv, CompanionCommandLine& line) {
    // Without long options getopt proper, so that "--name" is refused as
    // the companions always refused it.
    auto next = [&]() {
        return line.longs != nullptr ? getopt_long(argc, argv, line.options, line.longs, nullptr)
                                     : getopt(argc, argv, line.options);
    };
    int c;
    while ((c = next()) != -1) {
        switch (c) {
            case 'f':
                line.wern = optarg;
                break;
            case 'R':
                line.root_prefix = optarg;
                break;
            case 'S':
                line.stencil_dir = optarg;
                break;
            case '?':
                return false;
            default:
                if (line.take == nullptr || !line.take(c, optarg, line.context)) return false;
        }
    }
    return true;
}

// The first refusal of the words after the options, in kelvo's order;
// false after its message.
bool acceptable(int argc, char** argv, const CompanionCommandLine& line) {
    if (optind < argc) {
        fprintf(stderr, gettext("%s: Illegal argument -- %s\n"), line.prog, argv[optind]);
        return false;
    }
    for (int after_wern = 0; after_wern < 2; ++after_wern) {
        const char* refusal =
            line.refuse != nullptr ? line.refuse(line.context, after_wern) : nullptr;
        if (refusal != nullptr) {
            fprintf(stderr, refusal, line.prog);
            return false;
        }
        if (after_wern == 0 && line.wern == nullptr) {
            fprintf(stderr, gettext("%s: No WERN (use -f)\n"), line.prog);
            return false;
        }
    }
    return true;
}

}  // namespace

bool parse_companion_command_line(int argc, char** argv, CompanionCommandLine& line) {
    set_program_name(argv[0]);
    line.prog = basename(argv[0]);
    line.wern = getenv("QRM_WERN");
    if (read_options(argc, argv, line) && acceptable(argc, argv, line)) return true;
    line.print_usage(stderr, line.prog);
    return false;
}
