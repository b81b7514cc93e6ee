/* A client in C: every documented name is taken, so that the library must have it, and what can be
 * done without a service is done. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lyrane/client.h>

static int failures;
static void expect(int good, const char* what) {
    if (!good) {
        fprintf(stderr, "failed: %s\n", what);
        failures++;
    }
}

int main(void) {
    setenv("VELORAN_RUN", "/nonexistent", 1);
    setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    msgclient_t* client = msgclient_open("no.such.service.runs", "v", 7);
    expect(client == NULL && errno == ENOENT, "no service");
    expect(msgclient_close(NULL) == 0, "close of nothing");

    lyr_request request = {.type = LYR_MSG_REPEAT};
    struct iovec piece = {.iov_base = &request, .iov_len = sizeof request};
    msgclient_event event = {.kind = MSGCLIENT_EVENT_PULSE};
    int32_t length = 0;
    expect(msgclient_putget(NULL, &request, 1, NULL, 0, &length, 0) == EINVAL, "putget");
    expect(msgclient_putgetv(NULL, &piece, 1, &piece, 1, &length, 0) == EINVAL, "putgetv");
    expect(msgclient_put(NULL, 1, &request, 1, 0) == EINVAL, "put");
    expect(msgclient_putv(NULL, 1, &piece, 1, 0) == EINVAL, "putv");
    expect(msgclient_get(NULL, 1, NULL, 0, &length, 0) == EINVAL, "get");
    expect(msgclient_getv(NULL, 1, &piece, 1, &length, 0) == EINVAL, "getv");
    expect(msgclient_notify(NULL, 1, &event) == EINVAL, "notify");
    expect(msgclient_notify_pulse(NULL, 1) == EINVAL, "notify_pulse");
    expect(msgclient_wait_pulse(NULL) == 0, "wait_pulse");

    lyr_ms* sources = NULL;
    lyr_ms_node* nodes = NULL;
    lyr_ms_node_metadata* data = NULL;
    unsigned char node[24];
    memset(node, 0xFF, sizeof node);
    expect(unpack_media_node(node, sizeof node, 1, &nodes) == 0 && nodes[0].id == NULL &&
               nodes[0].type == -1,
           "unpack_media_node");
    expect(unpack_media_source(node, sizeof node, 1, &sources) == -1 && sources == NULL,
           "unpack_media_source");
    expect(unpack_metadata(NULL, 1, 1, &data) == -1 && data == NULL, "unpack_metadata");
    free_lyr_ms(&sources);
    free_lyr_ms_node_metadata(&data);
    free_lyr_ms_node_contents(nodes);
    free_lyr_ms_node(&nodes);
    free_lyr_ms_nodes(&nodes, 0);
    medianode* service_node = NULL;
    metadata* service_data = NULL;
    free_medianode(&service_node);
    free_medianodes(&service_node, 0);
    free_medianode_contents(NULL);
    free_metadata(&service_data);
    expect(free_mediasource(NULL) == NULL, "free_mediasource");
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
