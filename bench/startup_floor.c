/* startup_floor: the least a run of kelvo has to do: start, open the
 * repository file read-only as kelvo's view opens it, read one property's
 * values in one query, and write them in one call. Built twice: wholly
 * static (startup_floor_static), and linked as kelvo is (startup_floor:
 * SQLite inside, the C library shared, since kelvo loads the etcd client
 * when asked to and so cannot be static).
 *
 *   startup_floor REPOSITORY_FILE GROUP PROPERTY
 *
 * Writes the values (each followed by a NUL byte, as stored) to standard
 * output; status 1 when the file cannot be read or holds no such property.
 * bench/startup.sh times it beside kelvo and /bin/true. */
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#ifdef FLOOR_STATIC
/* The static floor loads no SQLite extension: SQLite's calls of dlopen come
 * here (the link wraps them), which keeps the static C library's dlopen, and
 * the warning that linking it gives, out. */
void* __wrap_dlopen(const char* file, int mode);
void* __wrap_dlopen(const char* file, int mode) {
    (void)file;
    (void)mode;
    return NULL;
}
#endif

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: startup_floor REPOSITORY_FILE GROUP PROPERTY\n");
        return 2;
    }
    /* As kelvo's library sets it up: no allocation statistics. */
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    char uri[4096];
    snprintf(uri, sizeof uri, "file:%s?mode=ro&readonly_shm=1", argv[1]);
    sqlite3* db = NULL;
    sqlite3_stmt* st = NULL;
    int status = 1;
    if (sqlite3_open_v2(uri, &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX,
                        NULL) == SQLITE_OK &&
        sqlite3_prepare_v2(db,
                           "SELECT p.vals FROM pgs g JOIN props p ON p.pg_id = g.id"
                           " WHERE g.name = ?1 AND p.name = ?2 LIMIT 1",
                           -1, &st, NULL) == SQLITE_OK) {
        sqlite3_bind_text(st, 1, argv[2], -1, SQLITE_STATIC);
        sqlite3_bind_text(st, 2, argv[3], -1, SQLITE_STATIC);
        if (sqlite3_step(st) == SQLITE_ROW) {
            const void* values = sqlite3_column_blob(st, 0);
            int n = sqlite3_column_bytes(st, 0);
            if (n == 0 || write(1, values, (size_t)n) == n) status = 0;
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return status;
}
