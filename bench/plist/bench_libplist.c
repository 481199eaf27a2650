/* The same timed work as "bench_plist once", done by Debian's libplist, for
 * comparison only (nothing outside bench/ links it).
 *
 *   bench_libplist read|write FILE N   prints "<CPU ms per operation> <peak RSS in KiB>"
 */
#include <plist/plist.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

static double now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return (double)ts.tv_sec * 1e3 + (double)ts.tv_nsec / 1e6;
}

int main(int argc, char** argv) {
    if (argc != 4 || (strcmp(argv[1], "read") != 0 && strcmp(argv[1], "write") != 0)) {
        fprintf(stderr, "usage: bench_libplist read|write FILE N\n");
        return 2;
    }
    FILE* f = fopen(argv[2], "rb");
    if (!f) {
        perror(argv[2]);
        return 1;
    }
    fseek(f, 0, SEEK_END);
    long size = ftell(f);
    fseek(f, 0, SEEK_SET);
    char* bytes = malloc((size_t)size);
    if (!bytes || fread(bytes, 1, (size_t)size, f) != (size_t)size) {
        fprintf(stderr, "bench_libplist: cannot read %s\n", argv[2]);
        return 1;
    }
    fclose(f);
    int n = atoi(argv[3]);
    if (n < 1) n = 1;
    double total = 0;
    if (strcmp(argv[1], "read") == 0) {
        for (int i = 0; i < n; ++i) {
            double start = now_ms();
            plist_t root = NULL;
            plist_from_bin(bytes, (uint32_t)size, &root);
            if (!root) {
                fprintf(stderr, "bench_libplist: cannot parse %s\n", argv[2]);
                return 1;
            }
            plist_free(root);
            total += now_ms() - start;
        }
    } else {
        plist_t root = NULL;
        plist_from_bin(bytes, (uint32_t)size, &root);
        if (!root) {
            fprintf(stderr, "bench_libplist: cannot parse %s\n", argv[2]);
            return 1;
        }
        for (int i = 0; i < n; ++i) {
            double start = now_ms();
            char* out = NULL;
            uint32_t length = 0;
            plist_to_bin(root, &out, &length);
            plist_to_bin_free(out);
            total += now_ms() - start;
        }
        plist_free(root);
    }
    free(bytes);
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf("%.1f %ld\n", total / n, usage.ru_maxrss);
    return 0;
}
