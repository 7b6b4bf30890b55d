// pelorin-test-prompter: gcr's mock system prompter on the session bus, standing in for the
// desktop's keyring prompt; prints its bus name on the first line (for the daemon's
// GNOME_KEYRING_TEST_PROMPTER). Commands on standard input, one per line, until it closes:
//   ok <password>   answer the next prompt with the password
//   cancel          dismiss the next prompt
//   pending         print 1 when an answer given above has not been used yet, else 0
#define GCR_API_SUBJECT_TO_CHANGE
#include <gcr/gcr-base.h>

#include <cstdio>
#include <cstring>

int main()
{
    const char *name = gcr_mock_prompter_start();
    std::printf("%s\n", name);
    std::fflush(stdout);
    char line[512];
    while (std::fgets(line, sizeof line, stdin)) {
        line[std::strcspn(line, "\n")] = '\0';
        if (std::strncmp(line, "ok ", 3) == 0) {
            gcr_mock_prompter_expect_password_ok(line + 3, nullptr);
        } else if (std::strcmp(line, "cancel") == 0) {
            gcr_mock_prompter_expect_password_cancel();
        } else if (std::strcmp(line, "pending") == 0) {
            std::printf("%d\n", gcr_mock_prompter_is_expecting() ? 1 : 0);
            std::fflush(stdout);
        }
    }
    gcr_mock_prompter_stop();
    return 0;
}
