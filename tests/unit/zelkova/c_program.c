/* A C program's view of the platform library. Linked into the unit test, and by itself to the installed library. */

#include <zelkova.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int every_operation_serves_c(void);

/* The number of operations that do not answer a C program as they should; the malformed and missing inputs keep it from
 * touching anything. */
int every_operation_serves_c(void) {
    int failures = 0;
    char line[] = "a!!b";
    char *fields[2] = {NULL, NULL};
    char small[4] = "";
    char *text = NULL;
    struct sys_info info = {-1};
    const char *const command[] = {"true", NULL};
    char **vector = malloc(2 * sizeof *vector);
    int (*const push)(const char *, const char *, const char *, int, int) = event_push;

    failures += push == NULL;
    failures += exec_cmd("true", command) != 0;
    text = get_ts_services_setting("NO_SUCH_SERVICE");
    failures += text != NULL;
    failures += get_sys_info(&info) > 0 || info.hardware_type < 0;
    failures += send_wol_packet("not an address") != -1;
    failures += safe_open("/no/such/file", 0, 0) != -1;
    failures += safe_asprintf(&text, "%d", 42) != 2 || strcmp(text, "42") != 0;
    free(text);
    if (vector != NULL) {
        vector[0] = add_arg("--%s", "option");
        vector[1] = NULL;
        failures += vector[0] == NULL || strcmp(vector[0], "--option") != 0;
    }
    argv_free(vector);
    failures += split(line, "!!", fields, 2) != 2 || strcmp(fields[1], "b") != 0;
    failures += strcmp(strncpyt(small, "ab", sizeof small), "ab") != 0;
    failures += strcmp(strncat_safe(small, "cd", sizeof small), "abc") != 0;
    failures += exists("/", 100) != 1;
    failures += sync_fs("/no/such/file") != -1;
    return failures;
}

#ifdef STAND_ALONE
int main(void) {
    const int failures = every_operation_serves_c();
    printf("%d operations failed\n", failures);
    return failures != 0;
}
#endif
