// The commands that only a repository in an etcd cluster has: grant and
// upgrade.
#include <iostream>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"

namespace hgxrepo {

int cmd_grant(const Invocation& inv) {
    const std::vector<std::string>& words = inv.words;
    if (words.empty() || words[0].rfind("-", 0) == 0) throw Usage{};
    const std::string& user = words[0];
    std::string host;
    size_t k = 1;
    if (k < words.size() && words[k] == "--host") {
        if (k + 1 >= words.size()) throw Usage{};
        host = words[k + 1];
        k += 2;
    }
    std::vector<std::string> werns(words.begin() + static_cast<std::ptrdiff_t>(k), words.end());
    if (werns.empty()) throw Usage{"grant names one or more instances (wrn:/SERVICE:INSTANCE)"};
    std::vector<std::string> missing;
    std::string message;
    if (hgx_grant(inv.path.c_str(), user, host, werns, &missing, &message) < 0)
        throw Failure{message};
    for (const std::string& w : missing)
        std::cerr << PROG << one_line(w) << ": no such instance yet; granted all the same\n";
    return 0;
}

int cmd_upgrade(const Invocation& inv) {
    arity(inv, 0, 0);
    int result = 0;
    until_committed(inv.path, [&] {
        std::string message;
        result = hgx_upgrade(inv.path.c_str(), &message);
        if (result < 0 && hgx_error() == HGX_ERROR_CONFLICT) throw Conflict{};
        if (result < 0) throw Failure{message};
    });
    std::cout << inv.path
              << (result == 0 ? ": converted to the current layout\n"
                              : ": already in the current layout\n");
    return 0;
}

}  // namespace hgxrepo
