// A cluster compacted under a run that has bound: the view tells that
// failure from a name that names nothing, the evaluation gives no text, and
// every program that evaluates as kelvo does (kelvo -a, kelvo-diff,
// kelvo-lint) ends with status 3 and kelvo's message.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "common/temp_dir.h"
#include "etcd_gtest.h"
#include "hgxrepo.h"
#include "kelvo_tool.h"

namespace {

TEST(RepositoryLost, ACompactedRevisionEndsTheRunANameThatNamesNothingDoesNot) {
    etcd_testing::EtcdServer server;
    ETCD_START_OR_SKIP(server, etcd_testing::Options{});
    const std::string url = server.url("unit");
    auto import = [&](const char* value) {
        std::string error;
        const std::string manifest =
            std::string(R"({"services": {"a/x": {"instances": {"default": {}}},
                "a/y": {"instances": {"default": {"groups": {"c": {"properties": {"v": ")") +
            value + "\"}}}}}}}}";
        ASSERT_EQ(hgxrepo_import_text(url, manifest, true, &error), 0) << error;
    };
    import("one");
    setenv("HGX_REPOSITORY", url.c_str(), 1);
    repository_t* view = nullptr;
    ASSERT_EQ(repository_create("wrn:/a/x:default", nullptr, &view), REPOSITORY_SUCCESS);

    EXPECT_EQ(repository_get_property(view, "wrn:/a/none:default/:properties/c/v"), nullptr);
    EXPECT_EQ(repository_get_property(view, "wrn:/a/y:default/:properties/c/none"), nullptr);
    EXPECT_EQ(repository_failure(view), HGX_ERROR_NONE);

    import("two");
    server.compact();
    EXPECT_EQ(repository_match_properties(view, "^wrn:/a/y:default/:properties/c/v$", 0), nullptr);
    EXPECT_EQ(repository_failure(view), HGX_ERROR_REVISION_COMPACTED);

    testing_support::TempDir dir;
    testing_support::write_file(dir / "s", "y=$%{wrn:/a/y:default/:properties/c/v}\n");
    defines_t* defines = defines_create();
    stencil_output_buffer_t* text = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(evaluate_stencil(view, defines, "s", dir.path().c_str(), 0, &text),
              KELVO_QRMERR | KELVO_ENDS_RUN);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kelvo: Unable to get properties for wrn:/a/x:default: The etcd cluster has "
              "compacted away the revision being read; try again\n");
    EXPECT_EQ(text, nullptr);
    defines_destroy(defines);
    repository_destroy(view);
    unsetenv("HGX_REPOSITORY");
}

}  // namespace
