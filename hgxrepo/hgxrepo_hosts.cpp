// hgxrepo hosts: where every host's mirror stands, from the status records
// the mirrors keep in the cluster (sync_report.cpp writes them), measured
// against the repository's last commit.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "hgxrepo_internal.h"
#include "manifest.h"

namespace hgxrepo {

namespace {

using nlohmann::json;

std::optional<int64_t> number(const json& record, const char* name) {
    if (!record.is_object()) return std::nullopt;
    auto it = record.find(name);
    if (it == record.end() || !it->is_number_integer()) return std::nullopt;
    return it->get<int64_t>();
}

// One host as the table and the JSON show it; unknown numbers are empty.
struct Host {
    std::string name;
    std::optional<int64_t> revision, behind, seconds, status, command_revision, command_time, age;
    json record;
};

std::string cell(const std::optional<int64_t>& n) { return n ? std::to_string(*n) : "-"; }

json value(const std::optional<int64_t>& n) { return n ? json(*n) : json(nullptr); }

// How far a host's record stands behind the head, in commits and seconds
// (the age of the first commit it lacks).
void measure(const std::string& url, const hgx_commit_info& head, int64_t now, Host* h) {
    std::optional<int64_t> commit = number(h->record, "commit");
    if (!h->revision) return;
    if (*h->revision >= head.revision) {
        h->behind = h->seconds = 0;
        return;
    }
    if (commit && *commit > 0) h->behind = head.number - *commit;
    hgx_commit_info next;
    std::string message;
    int rc = hgx_commit_after(url.c_str(), *h->revision, &next, &message);
    if (rc < 0) throw Failure{message};
    if (rc > 0 && next.time > 0) h->seconds = std::max<int64_t>(0, now - next.time);
}

}  // namespace

int cmd_hosts(const Invocation& inv) {
    const std::vector<std::string>& words = inv.words;
    std::optional<int64_t> behind;
    bool failed = false, as_json = false;
    for (size_t k = 0; k < words.size(); ++k) {
        if (words[k] == "--behind" && k + 1 < words.size()) {
            const std::string& t = words[++k];
            if (t.empty() || t.size() > 9 || t.find_first_not_of("0123456789") != std::string::npos)
                throw Usage{"--behind " + manifest::quote(t) + ": a number of seconds"};
            behind = std::stoll(t);
        } else if (words[k] == "--failed") {
            failed = true;
        } else if (words[k] == "--json") {
            as_json = true;
        } else {
            throw Usage{"unknown option " + manifest::quote(words[k])};
        }
    }
    std::map<std::string, std::string> records;
    hgx_commit_info head;
    std::string message;
    if (hgx_hosts_read(inv.path.c_str(), &records, &head, &message) < 0) throw Failure{message};
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    std::vector<Host> hosts;
    for (const auto& [name, text] : records) {
        Host h;
        h.name = name;
        h.record = json::parse(text, nullptr, false);
        if (!h.record.is_object()) h.record = json::object();
        h.revision = number(h.record, "revision");
        if (auto it = h.record.find("command"); it != h.record.end() && it->is_object()) {
            h.status = number(*it, "status");
            h.command_revision = number(*it, "revision");
            h.command_time = number(*it, "time");
        }
        if (auto t = number(h.record, "time")) h.age = std::max<int64_t>(0, now - *t);
        measure(inv.path, head, now, &h);
        hosts.push_back(std::move(h));
    }

    if (as_json) {
        json out = {{"head", {{"revision", head.revision}, {"commits", head.number}}},
                    {"hosts", json::array()}};
        out["head"]["time"] = head.time ? json(head.time) : json(nullptr);
        for (const Host& h : hosts) {
            auto connected = h.record.find("connected");
            auto version = h.record.find("version");
            out["hosts"].push_back(
                {{"host", h.name},
                 {"revision", value(h.revision)},
                 {"behind", {{"revisions", value(h.behind)}, {"seconds", value(h.seconds)}}},
                 {"applied", value(number(h.record, "applied"))},
                 {"connected", connected != h.record.end() && connected->is_boolean()
                                   ? *connected
                                   : json(nullptr)},
                 {"version",
                  version != h.record.end() && version->is_string() ? *version : json(nullptr)},
                 {"command", h.status ? json{{"status", *h.status},
                                             {"revision", value(h.command_revision)},
                                             {"time", value(h.command_time)}}
                                      : json(nullptr)},
                 {"age", value(h.age)}});
        }
        // Names from the cluster may hold any byte: replaced where not UTF-8.
        std::cout << out.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
    } else {
        auto row = [](const std::string& a, const std::string& b, const std::string& c,
                      const std::string& d, const std::string& e, const std::string& f) {
            char line[512];
            std::snprintf(line, sizeof line, "%-24s %10s %8s %8s %8s %6s\n", a.c_str(), b.c_str(),
                          c.c_str(), d.c_str(), e.c_str(), f.c_str());
            // A name longer than the line keeps its end: one record, one line.
            std::string text = line;
            if (text.back() != '\n')
                text = a + " " + b + " " + c + " " + d + " " + e + " " + f + "\n";
            std::cout << text;
        };
        row("HOST", "REVISION", "BEHIND", "SECONDS", "COMMAND", "AGE");
        for (const Host& h : hosts)
            row(manifest::escape(h.name), cell(h.revision), cell(h.behind), cell(h.seconds),
                cell(h.status), cell(h.age));
    }
    std::cout.flush();

    // A host whose lag cannot be told while it is behind counts as behind.
    int status = 0;
    for (const Host& h : hosts) {
        bool late = behind && (!h.behind || *h.behind > 0) && (!h.seconds || *h.seconds > *behind);
        if (late) {
            std::cerr << PROG << manifest::escape(h.name) << ": " << cell(h.behind)
                      << " revisions and " << cell(h.seconds) << " seconds behind\n";
            status = 1;
        }
        if (failed && h.status && *h.status != 0) {
            std::cerr << PROG << manifest::escape(h.name) << ": the command failed (status "
                      << *h.status << ") for revision " << cell(h.command_revision) << "\n";
            status = 1;
        }
    }
    return status;
}

}  // namespace hgxrepo
