// hgxrepo: fills and inspects the repository.
//
// The command line names one command, found in the table below and run by a
// function of its own: reading commands (export, list, show, diff) go
// through the client interface of hgx.h, as every other reader does;
// changing commands go through the library's writer, inside one transaction
// that is committed only when the whole command succeeded. A failed command
// prints one line, "hgxrepo: what", and leaves the file as it was.
#include "hgxrepo.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"
#include "sync.h"

namespace hgxrepo {

std::string one_line(std::string s) { return manifest::escape(s, false); }

namespace {

const char USAGE[] =
    "usage: hgxrepo [-r FILE] import [--no-snapshot] MANIFEST...\n"
    "       hgxrepo [-r FILE] export [WERN]\n"
    "       hgxrepo [-r FILE] snapshot WERN [NAME]\n"
    "       hgxrepo [-r FILE] setprop [--snapshot] WERN [-t TYPE] [VALUE...]\n"
    "       hgxrepo [-r FILE] delprop [--snapshot] WERN\n"
    "       hgxrepo [-r FILE] addpg [--snapshot] WERN TYPE\n"
    "       hgxrepo [-r FILE] delpg [--snapshot] WERN\n"
    "       hgxrepo [-r FILE] delete WERN\n"
    "       hgxrepo [-r FILE] list\n"
    "       hgxrepo [-r FILE] show [--json] WERN [SNAPSHOT]\n"
    "       hgxrepo [-r FILE] get [-0] WERN\n"
    "       hgxrepo [-r FILE] copy [--force] TARGET\n"
    "       hgxrepo [-r FILE] diff WERN\n"
    "       hgxrepo [-r FILE] sync [--once] [--service PATTERN]... [--instance PATTERN]... "
    "[--exec COMMAND] [--splay SECONDS] [--mode MODE] [--host NAME] [--metrics FILE] URL\n"
    "       hgxrepo -r URL hosts [--behind SECONDS] [--failed] [--json]\n"
    "       hgxrepo -r URL grant USER [--host NAME] WERN...\n"
    "       hgxrepo -r URL upgrade\n"
    "       hgxrepo help\n"
    "       hgxrepo --version\n"
    "The repository file is FILE, else $HGX_REPOSITORY, else " HGX_DEFAULT_REPOSITORY
    ".\n"
    "A repository may also be an etcd cluster: etcd[s]://HOST:PORT[,HOST:PORT]...[/PREFIX].\n"
    "A MANIFEST of - is standard input.\n"
    "kelvo reads an instance's snapshot \"running\" (the group general excepted):\n"
    "changes are seen after \"hgxrepo snapshot WERN\", or at once with --snapshot.\n";

// The lines of USAGE that show a command, without their lead ("usage: " or
// the blanks under it); none for a word that no line shows.
std::vector<std::string> usage_of(const std::string& command) {
    std::vector<std::string> lines;
    const std::string text = USAGE;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        std::string line = text.substr(at, end - at);
        const size_t lead = line.find_first_not_of(' ', line.rfind("usage: ", 0) == 0 ? 7 : 0);
        if (lead == std::string::npos || line.compare(lead, 8, "hgxrepo ") != 0) continue;
        line.erase(0, lead);
        std::string rest = line.substr(std::string("hgxrepo ").size());
        for (const char* r : {"[-r FILE] ", "-r URL "})
            if (rest.rfind(r, 0) == 0) rest.erase(0, std::string(r).size());
        if (rest.substr(0, rest.find(' ')) == command) lines.push_back(line);
    }
    return lines;
}

// The words a command cannot do without, as its first usage line calls
// them: those outside brackets, without a trailing "...".
std::vector<std::string> required_words(const std::string& command) {
    std::vector<std::string> required;
    const std::vector<std::string> lines = usage_of(command);
    if (lines.empty()) return required;
    const std::string& line = lines[0];
    size_t at = line.find(' ' + command);
    at = at == std::string::npos ? line.size() : at + command.size() + 1;
    int depth = 0;
    while (at < line.size()) {
        const size_t end = std::min(line.find(' ', at + 1), line.size());
        std::string word = line.substr(at, end - at);
        word.erase(0, word.find_first_not_of(' '));
        for (char c : word) depth += c == '[' ? 1 : c == ']' ? -1 : 0;
        const bool bracketed = depth > 0 || word.find(']') != std::string::npos;
        if (word.size() > 3 && word.compare(word.size() - 3, 3, "...") == 0)
            word.resize(word.size() - 3);
        if (!bracketed && !word.empty()) required.push_back(word);
        at = end;
    }
    return required;
}

std::string repository_path(const std::string& option) {
    if (!option.empty()) return option;
    const char* env = std::getenv("HGX_REPOSITORY");
    return env && *env ? env : HGX_DEFAULT_REPOSITORY;
}

// An octal mode of permission bits alone, as chmod takes it: 0 to 0777.
unsigned parse_file_mode(const std::string& text) {
    unsigned long mode = std::strtoul(text.c_str(), nullptr, 8);
    if (text.empty() || text.size() > 4 ||
        text.find_first_not_of("01234567") != std::string::npos || mode > 0777)
        throw Usage{"--mode " + manifest::quote(text) + ": an octal mode from 0 to 0777"};
    return static_cast<unsigned>(mode);
}

// A number of seconds from 0 to a day.
unsigned parse_seconds(const char* option, const std::string& text) {
    unsigned long n = std::strtoul(text.c_str(), nullptr, 10);
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos || n > 86400)
        throw Usage{std::string(option) + " " + manifest::quote(text) +
                    ": a number of seconds from 0 to 86400"};
    return static_cast<unsigned>(n);
}

int cmd_sync(const Invocation& inv) {
    const std::vector<std::string>& words = inv.words;
    SyncOptions o;
    o.file = inv.path;
    size_t k = 0;
    for (; k < words.size() && words[k].rfind("--", 0) == 0; ++k) {
        if (words[k] == "--once") {
            o.once = true;
        } else if ((words[k] == "--service" || words[k] == "--exec") && k + 1 < words.size()) {
            (words[k] == "--exec" ? o.exec : o.services.emplace_back()) = words[k + 1];
            ++k;
        } else if (words[k] == "--mode" && k + 1 < words.size()) {
            o.mode = parse_file_mode(words[++k]);
        } else if (words[k] == "--instance" && k + 1 < words.size()) {
            o.instances.push_back(words[++k]);
        } else if (words[k] == "--host" && k + 1 < words.size()) {
            o.host = words[++k];
            if (!hgx_valid_name(o.host))
                throw Usage{"--host " + manifest::quote(o.host) + ": not a valid host name"};
        } else if (words[k] == "--metrics" && k + 1 < words.size()) {
            o.metrics = words[++k];
            if (o.metrics.empty()) throw Usage{"--metrics needs a FILE"};
        } else if (words[k] == "--splay" && k + 1 < words.size()) {
            o.splay = parse_seconds("--splay", words[++k]);
        } else {
            throw Usage{"unknown option " + manifest::quote(words[k])};
        }
    }
    if (k + 1 != words.size()) throw Usage{"sync takes one URL"};
    o.url = words[k];
    return hgxrepo_sync(o);
}

// A command word and the function that runs it. Only the commands that edit
// groups or properties take --snapshot.
struct Command {
    const char* name;
    CommandFn* run;
    bool takes_snapshot;
};

constexpr Command COMMANDS[] = {
    {"import", cmd_import, false},     {"export", cmd_export, false},
    {"snapshot", cmd_snapshot, false}, {"setprop", cmd_setprop, true},
    {"delprop", cmd_delprop, true},    {"addpg", cmd_addpg, true},
    {"delpg", cmd_delpg, true},        {"delete", cmd_delete, false},
    {"list", cmd_list, false},         {"show", cmd_show, false},
    {"get", cmd_get, false},           {"copy", cmd_copy, false},
    {"diff", cmd_diff, false},         {"sync", cmd_sync, false},
    {"grant", cmd_grant, false},       {"upgrade", cmd_upgrade, false},
    {"hosts", cmd_hosts, false},
};

const Command* find_command(const std::string& name) {
    for (const Command& c : COMMANDS)
        if (name == c.name) return &c;
    return nullptr;
}

// Takes the options in front of the command from args, from *i on, leaving
// *i at the command. Returns true when an option was the whole job (help,
// version, the command words for completion); throws Usage for a bad one.
bool take_options(const std::vector<std::string>& args, size_t* i, std::string* file_option) {
    while (*i < args.size() && args[*i].size() > 1 && args[*i][0] == '-') {
        const std::string& arg = args[*i];
        if (arg == "-r") {
            if (*i + 1 >= args.size() || args[*i + 1].empty()) throw Usage{"-r needs a FILE"};
            *file_option = args[*i + 1];
            *i += 2;
        } else if (arg.rfind("-r", 0) == 0) {
            *file_option = arg.substr(2);
            ++*i;
        } else if (arg == "-h" || arg == "--help") {
            std::cout << USAGE;
            return true;
        } else if (arg == "--version") {
            std::cout << "hgxrepo " KELVO_VERSION "\n";
            return true;
        } else if (arg == "--commands") {
            // Not in the usage: the command words, one a line, for completion.
            for (const Command& c : COMMANDS) std::cout << c.name << '\n';
            std::cout << "help\n";
            return true;
        } else {
            throw Usage{"unknown option " + manifest::quote(arg)};
        }
    }
    return false;
}

// Prints the usage of one command (all of them for an empty word).
void print_usage(std::ostream& out, const std::string& command) {
    const std::vector<std::string> lines =
        command.empty() ? std::vector<std::string>{} : usage_of(command);
    if (lines.empty()) {
        out << USAGE;
        return;
    }
    for (size_t k = 0; k < lines.size(); ++k)
        out << (k == 0 ? "usage: " : "       ") << lines[k] << '\n';
}

// "CMD --help" (anywhere in front of a "--"), or "CMD -h" as its first word.
bool asks_for_help(const std::vector<std::string>& words) {
    for (size_t k = 0; k < words.size() && words[k] != "--"; ++k)
        if (words[k] == "--help" || (k == 0 && words[k] == "-h")) return true;
    return false;
}

// Runs the command line; *command receives the command's word once known,
// for the usage of a bad one.
int run(const std::vector<std::string>& args, std::string* command_word) {
    std::string file_option;
    size_t i = 0;
    if (take_options(args, &i, &file_option)) return 0;
    if (i >= args.size()) throw Usage{"no command given"};
    const std::string name = args[i++];
    if (name == "help") {
        // "help CMD" shows that command alone.
        if (i < args.size() && !find_command(args[i]))
            throw Usage{"unknown command " + manifest::quote(args[i])};
        print_usage(std::cout, i < args.size() ? args[i] : "");
        return 0;
    }
    Invocation inv;
    inv.command = name;
    inv.words.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    inv.path = repository_path(file_option);
    // "--snapshot" may stand in front of the wern.
    inv.snapshot = take_flag(inv.words, "--snapshot");
    const Command* command = find_command(name);
    if (command) *command_word = name;
    if (command && asks_for_help(inv.words)) {
        print_usage(std::cout, name);
        return 0;
    }
    if (inv.snapshot && (!command || !command->takes_snapshot))
        throw Usage{"--snapshot goes with setprop, delprop, addpg and delpg"};
    if (!command) throw Usage{"unknown command " + manifest::quote(name)};
    int status = command->run(inv);
    if (status != 0) return status;
    std::cout.flush();
    if (!std::cout) throw Failure{"cannot write standard output"};
    return 0;
}

}  // namespace

void arity(const Invocation& inv, size_t min, size_t max) {
    const size_t given = inv.words.size();
    if (given < min) {
        const std::vector<std::string> required = required_words(inv.command);
        throw Usage{inv.command + ": missing " +
                    (given < required.size() ? required[given] : std::string("an argument"))};
    }
    if (given > max)
        throw Usage{inv.command + ": unexpected argument " + manifest::quote(inv.words[max])};
}

bool take_flag(std::vector<std::string>& words, std::string_view flag) {
    if (words.empty() || words[0] != flag) return false;
    words.erase(words.begin());
    return true;
}

}  // namespace hgxrepo

using hgxrepo::Failure;
using hgxrepo::one_line;
using hgxrepo::PROG;
using hgxrepo::Usage;

int hgxrepo_main(int argc, char** argv) {
    std::vector<std::string> args;
    for (int k = 1; k < argc; ++k) args.emplace_back(argv[k]);
    // The command's word once it is known: a bad command line then gets
    // that command's usage rather than all of them.
    std::string command;
    try {
        return hgxrepo::run(args, &command);
    } catch (const Usage& u) {
        if (!u.what.empty()) std::cerr << PROG << one_line(u.what) << '\n';
        hgxrepo::print_usage(std::cerr, command);
        return 2;
    } catch (const Failure& f) {
        std::cout.flush();
        std::cerr << PROG << one_line(f.what) << '\n';
        return 1;
    } catch (const std::bad_alloc&) {
        std::cerr << PROG << "out of memory\n";
        return 1;
    }
}

int hgxrepo_import_text(const std::string& path, const std::string& text, bool snapshot,
                        std::string* error) {
    try {
        manifest::Document doc;
        std::string message;
        if (manifest::parse(text, "manifest", &doc, &message) < 0) throw Failure{message};
        hgxrepo::until_committed(path, [&] { hgxrepo::import_documents(path, {doc}, snapshot); });
        return 0;
    } catch (const Failure& f) {
        if (error) *error = PROG + one_line(f.what);
        return 1;
    } catch (const std::bad_alloc&) {
        if (error) *error = std::string(PROG) + "out of memory";
        return 1;
    }
}
