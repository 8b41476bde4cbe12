// The repository view over a real repository file: what creation reads,
// how snapshots and "general" differ, and the queries by name, pattern and
// group type, including when other services are pulled in.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "hgxrepo.h"
#include "repository_internal.h"
#include "unit_util.h"

namespace {

const char* const MANIFEST = R"({
  "services": {
    "net/foo": {
      "groups": {
        "general": { "type": "framework", "properties": { "enabled": true } },
        "svc": { "properties": { "sp": "from service" } }
      },
      "instances": {
        "default": {
          "groups": {
            "config": {
              "type": "application",
              "properties": {
                "port": 8080,
                "hosts": ["c.example", "a.example", "b.example"],
                "empty": []
              },
              "groups": { "tls": { "properties": { "on": false } } }
            },
            "cf1": { "type": "configfile", "properties": { "path": "/one" } },
            "cf0": { "type": "configfile",
                     "groups": { "inner": { "type": "configfile" } } }
          }
        }
      }
    },
    "net/bar": {
      "instances": {
        "one": { "groups": { "g": { "properties": { "x": "bar1" } } } },
        "two": { "groups": { "g": { "properties": { "x": "bar2" } } } }
      }
    },
    "net/baz": { "groups": { "g": { "properties": { "x": "baz" } } } }
  }
})";

class RepositoryView : public ::testing::Test {
  protected:
    void SetUp() override {
        file_ = dir_ / "repository.db";
        import(MANIFEST, true);
        setenv("HGX_REPOSITORY", file_.c_str(), 1);
        unsetenv("QRM_METHOD");
        unsetenv("QRM_RESTARTER");
    }
    void TearDown() override {
        repository_destroy(view_);
        EXPECT_EQ(repository_live_views(), 0);
        EXPECT_FALSE(repository_pool_exists());
    }
    void import(const std::string& manifest, bool snapshot) {
        std::string error;
        ASSERT_EQ(hgxrepo_import_text(file_, manifest, snapshot, &error), 0) << error;
    }
    void hgxrepo(std::vector<std::string> args) {
        args.insert(args.begin(), {"hgxrepo", "-r", file_});
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ASSERT_EQ(hgxrepo_main(static_cast<int>(args.size()), argv.data()), 0);
    }
    void open(const char* wern) {
        ASSERT_EQ(repository_create(wern, nullptr, &view_), REPOSITORY_SUCCESS)
            << hgx_strerror(hgx_error());
        ASSERT_NE(view_, nullptr);
    }
    std::vector<std::string> values(const char* name) {
        const property_info_t* info = repository_get_property(view_, name);
        std::vector<std::string> out;
        if (info == nullptr) return {"<none>"};
        for (int i = 0; i < info->num_values; i++) out.emplace_back(info->values[i]);
        return out;
    }
    static std::vector<std::string> names(property_list_node_t* list) {
        std::vector<std::string> out;
        for (auto* n = list; n != nullptr; n = n->next) out.emplace_back(n->info->wern);
        property_list_destroy(list);
        return out;
    }
    const local_property_info_t* instance_record(const char* name) {
        property_table_node_t key{};
        key.info.wern = const_cast<char*>(name);
        auto* node = static_cast<property_table_node_t*>(
            pkx_avl_find(view_->instance_names, &key, nullptr, nullptr));
        return node == nullptr ? nullptr : &node->info;
    }

    unit::TempDir dir_;
    std::string file_;
    repository_t* view_ = nullptr;
};

TEST_F(RepositoryView, CreateReadsTheInstanceUnderRelativeNames) {
    open("wrn:/net/foo:default");
    struct Case {
        const char* name;
        repository_type_t kind;
        const char* pg_type;
        hgx_type_t type;
        std::vector<std::string> values;
    } cases[] = {
        {"config", REPO_TYPE_PG, "application", HGX_TYPE_INVALID, {}},
        {"config/port", REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_COUNT, {"8080"}},
        {"config/hosts",
         REPO_TYPE_PROPERTY,
         nullptr,
         HGX_TYPE_ASTRING,
         {"c.example", "a.example", "b.example"}},
        {"config/empty", REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_ASTRING, {}},
        {"config/tls", REPO_TYPE_PG, "application", HGX_TYPE_INVALID, {}},
        {"config/tls/on", REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_BOOLEAN, {"false"}},
        {"svc/sp", REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_ASTRING, {"from service"}},
        {"general/enabled", REPO_TYPE_PROPERTY, nullptr, HGX_TYPE_BOOLEAN, {"true"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const property_info_t* info = repository_get_property(view_, c.name);
        ASSERT_NE(info, nullptr);
        EXPECT_STREQ(info->wern, c.name);
        EXPECT_EQ(info->repo_type, c.kind);
        if (c.pg_type == nullptr) {
            EXPECT_EQ(info->pg_type, nullptr);
        } else {
            EXPECT_STREQ(info->pg_type, c.pg_type);
        }
        EXPECT_EQ(info->type, c.type);
        EXPECT_EQ(info->num_values, static_cast<int>(c.values.size()));
        if (c.values.empty()) {
            EXPECT_EQ(info->values, nullptr);
        }
        EXPECT_EQ(values(c.name), c.values);
    }
    EXPECT_EQ(repository_get_property(view_, "config/missing"), nullptr);
    EXPECT_EQ(repository_get_property(view_, "port"), nullptr);

    EXPECT_STREQ(repository_get_wern(view_), "wrn:/net/foo:default");
    EXPECT_STREQ(repository_get_service_name(view_), "net/foo");
    EXPECT_STREQ(repository_get_instance_name(view_), "default");
    EXPECT_STREQ(repository_get_qrm_method(view_), "no method");
    EXPECT_EQ(repository_get_restarter(view_), nullptr);
    // A stencil that stays inside its instance costs no further traffic.
    EXPECT_EQ(pkx_avl_numnodes(view_->other_props), 0u);
    EXPECT_EQ(pkx_avl_numnodes(view_->instance_names), 0u);
}

TEST_F(RepositoryView, SnapshotHoldsExceptForGeneral) {
    hgxrepo({"setprop", "wrn:/net/foo:default/:properties/config/port", "9090"});
    hgxrepo({"setprop", "wrn:/net/foo/:properties/general/enabled", "false"});
    open("wrn:/net/foo:default");
    EXPECT_EQ(values("config/port"), std::vector<std::string>{"8080"});
    EXPECT_EQ(values("general/enabled"), std::vector<std::string>{"false"});
}

TEST_F(RepositoryView, InstanceWithoutSnapshotAndServiceAreReadDirectly) {
    import(R"({"services": {"net/new": {
                 "groups": {"s": {"properties": {"v": "service"}}},
                 "instances": {"i": {"groups": {"g": {"properties": {"v": "1"}}}}}}}})",
           false);
    hgxrepo({"setprop", "wrn:/net/new:i/:properties/g/v", "2"});
    open("wrn:/net/new:i");
    EXPECT_EQ(values("g/v"), std::vector<std::string>{"2"});
    // Without a snapshot the instance's own groups only.
    EXPECT_EQ(repository_get_property(view_, "s/v"), nullptr);
    repository_destroy(view_);
    view_ = nullptr;

    open("wrn:/net/new");
    EXPECT_EQ(values("s/v"), std::vector<std::string>{"service"});
    EXPECT_EQ(repository_get_property(view_, "g/v"), nullptr);
    EXPECT_STREQ(repository_get_service_name(view_), "net/new");
    EXPECT_EQ(repository_get_instance_name(view_), nullptr);
}

TEST_F(RepositoryView, FailedCreateLeavesNothingBehind) {
    struct Case {
        const char* wern;
        const char* file;  // null: the test's repository
    } cases[] = {
        {"wrn:/net/none:default", nullptr},
        {"wrn:/net/foo:none", nullptr},
        {"not a wern", nullptr},
        {"wrn:/net/foo:default", "/nonexistent/repository.db"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.wern);
        if (c.file != nullptr) setenv("HGX_REPOSITORY", c.file, 1);
        repository_t* view = reinterpret_cast<repository_t*>(1);
        EXPECT_EQ(repository_create(c.wern, nullptr, &view), REPOSITORY_QRM_ERROR);
        EXPECT_EQ(view, nullptr);
        EXPECT_EQ(repository_live_views(), 0);
        EXPECT_FALSE(repository_pool_exists());
        setenv("HGX_REPOSITORY", file_.c_str(), 1);
    }
    open("wrn:/net/foo:default");
    EXPECT_EQ(repository_live_views(), 1);
    EXPECT_TRUE(repository_pool_exists());
}

TEST_F(RepositoryView, NestedGroupAndPropertyOfOneNameCollide) {
    import(R"({"services": {"net/clash": {"instances": {"i": {"groups": {"c": {
                 "properties": {"x": "p"}, "groups": {"x": {}}}}}}}}})",
           true);
    repository_t* view = nullptr;
    EXPECT_EQ(repository_create("wrn:/net/clash:i", nullptr, &view), REPOSITORY_NO_MEMORY);
    EXPECT_EQ(view, nullptr);
    EXPECT_FALSE(repository_pool_exists());
}

TEST_F(RepositoryView, AbsolutePropertyIsFetchedOnceAndStoredAsWritten) {
    open("wrn:/net/foo:default");
    const char* name = "wrn:/net/bar:one/:properties/g/x";
    const property_info_t* first = repository_get_property(view_, name);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(values(name), std::vector<std::string>{"bar1"});
    EXPECT_EQ(repository_get_property(view_, name), first);
    EXPECT_STREQ(first->wern, name);
    // A group, or nothing at all, is no property.
    EXPECT_EQ(repository_get_property(view_, "wrn:/net/bar:one/:properties/g"), nullptr);
    EXPECT_EQ(repository_get_property(view_, "wrn:/net/bar:one/:properties/g/y"), nullptr);
    EXPECT_EQ(pkx_avl_numnodes(view_->other_props), 1u);
}

TEST_F(RepositoryView, RelativePatternsStayInTheInstance) {
    open("wrn:/net/foo:default");
    struct Case {
        const char* pattern;
        std::vector<std::string> expected;
    } cases[] = {
        {"^config/.*$",
         {"config/empty", "config/hosts", "config/port", "config/tls", "config/tls/on"}},
        {"^cf[01]$", {"cf0", "cf1"}},
        {"tls", {"config/tls", "config/tls/on"}},  // unanchored: anywhere in the name
        {"^wrn:/net/bar:one$", {}},                // absolute without the separator: tried here
        {"^nothing$", {}},
        {"^(config$", {}},  // does not compile
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pattern);
        EXPECT_EQ(names(repository_match_properties(view_, c.pattern, 0)), c.expected);
    }
    EXPECT_EQ(pkx_avl_numnodes(view_->instance_names), 0u);
    EXPECT_EQ(pkx_avl_numnodes(view_->other_props), 0u);
    EXPECT_EQ(repository_match_properties(view_, nullptr, 0), nullptr);
}

TEST_F(RepositoryView, MatchArraysHoldGrabsPlusTwo) {
    open("wrn:/net/foo:default");
    property_list_node_t* list = repository_match_properties(view_, "^config/(p)(o)rt$", 2);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->next, nullptr);
    EXPECT_EQ(list->matches[0].rm_so, 0);
    EXPECT_EQ(list->matches[1].rm_so, 7);
    EXPECT_EQ(list->matches[2].rm_so, 8);
    EXPECT_EQ(list->matches[3].rm_so, -1);  // the extra element, no group
    property_list_destroy(list);
}

// Whatever shortcut the form of a pattern allows (a literal beginning, one
// group between literal ends), the records and their offsets are exactly
// those regexec gives over every name of the view.
TEST_F(RepositoryView, MatchesAndOffsetsAreRegexecs) {
    open("wrn:/net/foo:default");
    const std::vector<std::string> all = names(repository_match_properties(view_, ".*", 0));
    const std::pair<const char*, int> patterns[] = {
        {"^config/(.*)$", 1},      {"^config/(t[^/]*)/on$", 1}, {"^config/(po)rt$", 1},
        {"^()config/port$", 1},    {"^c(f)[01]$", 1},           {"^cf?(1)$", 1},
        {"^(cf|config)/(.*)$", 2}, {"^config/([)(a-z]*)$", 1},  {"^config/tls(/on)?$", 1},
        {"^conf\\ig/(.*)$", 1},    {"^config/(p|h)(o)", 2},     {"^config/(.*)s$|^cf1$", 1},
        {"^config/(((t)))ls$", 3},
    };
    for (const auto& [pattern, grabs] : patterns) {
        SCOPED_TRACE(pattern);
        const size_t n = static_cast<size_t>(grabs) + 2;
        regex_t regex;
        ASSERT_EQ(regcomp(&regex, pattern, REG_EXTENDED), 0);
        std::vector<std::pair<std::string, std::vector<regoff_t>>> expected, got;
        for (const std::string& name : all) {
            std::vector<regmatch_t> m(n);
            if (regexec(&regex, name.c_str(), n, m.data(), 0) != 0) continue;
            std::vector<regoff_t> offsets;
            for (const regmatch_t& r : m) offsets.insert(offsets.end(), {r.rm_so, r.rm_eo});
            expected.emplace_back(name, offsets);
        }
        regfree(&regex);
        property_list_node_t* list = repository_match_properties(view_, pattern, grabs);
        for (auto* node = list; node != nullptr; node = node->next) {
            std::vector<regoff_t> offsets;
            for (size_t i = 0; i < n; i++)
                offsets.insert(offsets.end(), {node->matches[i].rm_so, node->matches[i].rm_eo});
            got.emplace_back(node->info->wern, offsets);
        }
        property_list_destroy(list);
        EXPECT_EQ(got, expected);
        EXPECT_FALSE(expected.empty());
    }
}

TEST_F(RepositoryView, AbsolutePatternPullsTheSelectedInstancesOnce) {
    open("wrn:/net/foo:default");
    const char* pattern = "^(wrn:/net/bar:one|wrn:/net/bar:two)/:properties/g/x$";
    property_list_node_t* list = repository_match_properties(view_, pattern, 1);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->matches[1].rm_so, 0);
    EXPECT_EQ(list->matches[1].rm_eo, 16);
    EXPECT_EQ(names(list), (std::vector<std::string>{"wrn:/net/bar:one/:properties/g/x",
                                                     "wrn:/net/bar:two/:properties/g/x"}));

    struct Flag {
        const char* name;
        int pulled;
    } flags[] = {
        {"wrn:/net/bar:one", 1},
        {"wrn:/net/bar:two", 1},
        {"wrn:/net/bar", 0},
        {"wrn:/net/baz", 0},
        {"wrn:/net/foo:default", 0},
        {"wrn:/net/baz/:properties/", 1},
        {"wrn:/net/baz/:properties", 1},
    };
    for (const Flag& f : flags) {
        SCOPED_TRACE(f.name);
        const local_property_info_t* info = instance_record(f.name);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->repo_type, REPO_TYPE_INSTANCE);
        EXPECT_EQ(info->inst_have_pulled_properties, f.pulled);
    }
    size_t known = pkx_avl_numnodes(view_->instance_names);
    EXPECT_EQ(known, 3u * 6u);  // 3 services, 3 instances, three forms each
    size_t pulled = pkx_avl_numnodes(view_->other_props);

    // A second pattern over the same instance: a pull again would meet its
    // own records and fail, giving null.
    EXPECT_EQ(names(repository_match_properties(view_, "^wrn:/net/bar:one/:properties/g(/x)?$", 1)),
              (std::vector<std::string>{"wrn:/net/bar:one/:properties/g",
                                        "wrn:/net/bar:one/:properties/g/x"}));
    EXPECT_EQ(pkx_avl_numnodes(view_->other_props), pulled);
    EXPECT_EQ(pkx_avl_numnodes(view_->instance_names), known);
}

TEST_F(RepositoryView, PatternEndingAtTheSeparatorFindsTheInstanceRecord) {
    open("wrn:/net/foo:default");
    property_list_node_t* list =
        repository_match_properties(view_, "^wrn:/net/baz/:properties/$", 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->info->repo_type, REPO_TYPE_INSTANCE);
    EXPECT_EQ(list->info->num_values, 0);
    EXPECT_EQ(names(list), std::vector<std::string>{"wrn:/net/baz/:properties/"});
    // The service was pulled on the way.
    EXPECT_EQ(values("wrn:/net/baz/:properties/g/x"), std::vector<std::string>{"baz"});
    EXPECT_EQ(instance_record("wrn:/net/baz")->inst_have_pulled_properties, 1);
}

TEST_F(RepositoryView, UnbalancedInstancePartGivesNullWithoutTraffic) {
    open("wrn:/net/foo:default");
    EXPECT_EQ(repository_match_properties(view_, "^wrn:/(net/bar:one/:properties/g/x)$", 0),
              nullptr);
    EXPECT_EQ(pkx_avl_numnodes(view_->instance_names), 0u);
    EXPECT_EQ(pkx_avl_numnodes(view_->other_props), 0u);
}

TEST_F(RepositoryView, PropertyFetchedBeforeItsPullMakesThePullFail) {
    open("wrn:/net/foo:default");
    ASSERT_NE(repository_get_property(view_, "wrn:/net/baz/:properties/g/x"), nullptr);
    for (int attempt = 0; attempt < 2; attempt++) {
        EXPECT_EQ(repository_match_properties(view_, "^wrn:/net/baz/:properties/g/x$", 0), nullptr);
        EXPECT_EQ(instance_record("wrn:/net/baz")->inst_have_pulled_properties, 0);
    }
}

TEST_F(RepositoryView, GroupsByTypeInAscendingOrder) {
    open("wrn:/net/foo:default");
    struct Case {
        const char* type;
        std::vector<std::string> expected;
    } cases[] = {
        {"configfile", {"cf0", "cf0/inner", "cf1"}},
        {"framework", {"general"}},
        {"none", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        property_list_node_t* list = repository_get_pgs_by_type(view_, c.type);
        for (auto* n = list; n != nullptr; n = n->next) EXPECT_EQ(n->matches, nullptr);
        EXPECT_EQ(names(list), c.expected);
    }
    property_list_destroy(nullptr);
}

}  // namespace
