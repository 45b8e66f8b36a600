/* The smallest host: calls the installed library and checks that it answers. */
#include <stdio.h>
#include <string.h>
#include <velmora/velmora.h>
#ifdef WITH_HTTPSTACK
#    include <velmora/httpstack.h>
#endif

static const char kGuid[] = "3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11";

static void dropLine(int32_t level, const char* channel, const char* line) {
    (void)level;
    (void)channel;
    (void)line;
}

int main(void) {
    char guid[37] = "";
    if (velmora_setLogCallback(dropLine) != VELMORA_OK) return 1;
    if (velmora_setSession(kGuid) != VELMORA_OK) return 2;
    if (velmora_getSession(guid) != VELMORA_OK || strcmp(guid, kGuid) != 0) return 3;
    if (velmora_ingest_stop(NULL) != VELMORA_ERROR_INVALID_ARGUMENT) return 4;
#ifdef WITH_HTTPSTACK
    if (velmora_httpstack_install(NULL) != 0) return 5;
    velmora_httpstack_uninstall();
#endif
    printf("session %s\n", guid);
    return 0;
}
