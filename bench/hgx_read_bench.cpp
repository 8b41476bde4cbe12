// Reads every group and property of one instance through libhgx, as the tool
// does at start-up (snapshot "running" if there is one, composed view, nested
// groups, all values), and prints how long it took.
//
//   hgx_read_bench REPOSITORY INSTANCE_WERN [ROUNDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "hgx.h"

namespace {

struct Counts {
    long groups = 0, properties = 0, values = 0;
};

bool read_pg(hgx_handle_t* h, hgx_propertygroup_t* pg, const hgx_snapshot_t* snap, Counts& c) {
    static char buf[4097];
    ++c.groups;
    if (hgx_pg_to_wern(pg, buf, sizeof buf) < 0 || hgx_pg_get_type(pg, buf, sizeof buf) < 0)
        return false;
    hgx_iter_t* it = hgx_iter_create(h);
    hgx_iter_t* vit = hgx_iter_create(h);
    hgx_property_t* p = hgx_property_create(h);
    hgx_value_t* v = hgx_value_create(h);
    hgx_propertygroup_t* child = hgx_pg_create(h);
    bool ok = hgx_iter_pg_properties(it, pg) == 0;
    while (ok && hgx_iter_next_property(it, p) == 1) {
        ++c.properties;
        hgx_type_t type;
        ok = hgx_property_to_wern(p, buf, sizeof buf) >= 0 && hgx_property_type(p, &type) == 0 &&
             hgx_iter_property_values(vit, p) == 0;
        while (ok && hgx_iter_next_value(vit, v) == 1) {
            ++c.values;
            ok = hgx_value_get_as_string(v, buf, sizeof buf) >= 0;
        }
    }
    ok = ok && hgx_iter_pg_pgs_composed(it, pg, snap) == 0;
    while (ok && hgx_iter_next_pg(it, child) == 1) ok = read_pg(h, child, snap, c);
    hgx_pg_destroy(child);
    hgx_value_destroy(v);
    hgx_property_destroy(p);
    hgx_iter_destroy(vit);
    hgx_iter_destroy(it);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: hgx_read_bench REPOSITORY INSTANCE_WERN [ROUNDS]\n");
        return 2;
    }
    int rounds = argc > 3 ? std::atoi(argv[3]) : 20;
    double best = 1e9, total = 0;
    Counts c;
    for (int r = 0; r < rounds; ++r) {
        auto start = std::chrono::steady_clock::now();
        hgx_handle_t* h = hgx_handle_create(HGX_VERSION);
        if (!h || hgx_handle_bind_path(h, argv[1]) != 0) {
            std::fprintf(stderr, "hgx_read_bench: %s: %s\n", argv[1], hgx_strerror(hgx_error()));
            return 1;
        }
        hgx_instance_t* inst = hgx_instance_create(h);
        hgx_snapshot_t* snap = hgx_snapshot_create(h);
        hgx_iter_t* it = hgx_iter_create(h);
        hgx_propertygroup_t* pg = hgx_pg_create(h);
        if (hgx_handle_decode_wern(h, argv[2], nullptr, nullptr, inst, nullptr, nullptr,
                                   HGX_DECODE_INSTANCE_ONLY) != 0) {
            std::fprintf(stderr, "hgx_read_bench: %s: %s\n", argv[2], hgx_strerror(hgx_error()));
            return 1;
        }
        const hgx_snapshot_t* s =
            hgx_instance_get_snapshot(inst, "running", snap) == 0 ? snap : nullptr;
        c = Counts{};
        bool ok = hgx_iter_instance_pgs_composed(it, inst, s) == 0;
        while (ok && hgx_iter_next_pg(it, pg) == 1) ok = read_pg(h, pg, s, c);
        if (!ok) {
            std::fprintf(stderr, "hgx_read_bench: read failed: %s\n", hgx_strerror(hgx_error()));
            return 1;
        }
        hgx_pg_destroy(pg);
        hgx_iter_destroy(it);
        hgx_snapshot_destroy(snap);
        hgx_instance_destroy(inst);
        hgx_handle_destroy(h);
        double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        best = ms < best ? ms : best;
        total += ms;
    }
    std::printf(
        "read %ld groups, %ld properties, %ld values: best %.2f ms, mean %.2f ms (%d rounds)\n",
        c.groups, c.properties, c.values, best, total / rounds, rounds);
    return 0;
}
