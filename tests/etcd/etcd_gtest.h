// Starting a test's own etcd inside a GoogleTest test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "etcd_server.h"

// Starts the server for the running test; where etcd is missing the test is
// skipped with the reason outside CI and fails in CI. Stands in a test body
// or SetUp, since skipping and failing return from it.
#define ETCD_START_OR_SKIP(server, options)                                   \
    do {                                                                      \
        std::string etcd_why_;                                                \
        if (!(server).start((options), &etcd_why_)) {                         \
            if (etcd_testing::may_skip(etcd_why_)) GTEST_SKIP() << etcd_why_; \
            FAIL() << etcd_why_;                                              \
        }                                                                     \
    } while (0)
