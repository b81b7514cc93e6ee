/* Lists the media sources of a running service, once waiting for the reply and once not.
 *
 *     cc -std=c11 list_sources.c $(pkg-config --cflags --libs lyrane-client) -o list_sources */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lyrane/client.h>

enum { TAG = 7, QUEUE = 4 };

static void free_texts(lyr_ms* source) {
    free(source->uid);
    free(source->name);
    free(source->view_name);
}

/* A reply is a result, a count and that many packed media sources. */
static int print_sources(const char* reply, int32_t length) {
    int32_t head[2];
    if (length < (int32_t)sizeof head) {
        fprintf(stderr, "the reply is too short\n");
        return -1;
    }
    memcpy(head, reply, sizeof head);
    if (head[0] != 0) {
        fprintf(stderr, "the service answers %d\n", (int)head[0]);
        return -1;
    }
    printf("%d media sources\n", (int)head[1]);
    lyr_ms* sources = NULL;
    if (head[1] > 0 && unpack_media_source(reply + sizeof head, length - (int32_t)sizeof head,
                                           head[1], &sources) != 0) {
        fprintf(stderr, "the reply makes no sense\n");
        return -1;
    }
    for (int32_t i = 0; i < head[1]; i++) {
        printf("%d %s\n", (int)sources[i].id, sources[i].name != NULL ? sources[i].name : "-");
        free_texts(&sources[i]);
    }
    free(sources);
    return 0;
}

/* The reply of a tag, however long it is; the caller frees it. */
static char* fetch(msgclient_t* client, uint32_t tag, int32_t* length) {
    int32_t status = msgclient_get(client, tag, NULL, 0, length, 0);
    char* reply = malloc((size_t)*length + 1);
    if (status == LYR_STATUS_QUEUED && reply != NULL) {
        status = msgclient_get(client, tag, reply, *length, length, 0);
    }
    if (status != 0 || reply == NULL) {
        fprintf(stderr, "no reply: %s\n", strerror(status));
        free(reply);
        return NULL;
    }
    return reply;
}

/* Sends, and waits. A reply that does not fit stays in the service's queue, under tag 0. */
static int list_waiting(msgclient_t* client, const lyr_request* request) {
    char small[64];
    int32_t length = 0;
    const int32_t status =
        msgclient_putget(client, request, sizeof *request, small, sizeof small, &length, 0);
    if (status == 0) {
        return print_sources(small, length);
    }
    if (status != LYR_STATUS_QUEUED) {
        fprintf(stderr, "the request failed: %s\n", strerror(status));
        return -1;
    }
    char* reply = fetch(client, 0, &length);
    const int result = reply != NULL ? print_sources(reply, length) : -1;
    free(reply);
    return result;
}

/* Sends, goes on, and fetches the reply when a pulse has announced it. */
static int list_later(msgclient_t* client, const lyr_request* request) {
    if (msgclient_notify_pulse(client, QUEUE) != 0) {
        perror("msgclient_notify_pulse");
        return -1;
    }
    const int32_t status = msgclient_put(client, TAG, request, sizeof *request, 0);
    if (status != 0) {
        fprintf(stderr, "the request failed: %s\n", strerror(status));
        return -1;
    }
    const uint32_t tag = msgclient_wait_pulse(client);
    int32_t length = 0;
    char* reply = tag == TAG ? fetch(client, tag, &length) : NULL;
    const int result = reply != NULL ? print_sources(reply, length) : -1;
    free(reply);
    return result;
}

int main(int argc, char** argv) {
    const char* service = argc > 1 ? argv[1] : LYR_SERVICE_NAME;
    msgclient_t* client = msgclient_open(service, NULL, 0);
    if (client == NULL) {
        fprintf(stderr, "%s: %s\n", service, strerror(errno));
        return EXIT_FAILURE;
    }
    const lyr_request request = {.type = LYR_MSG_GET_MEDIA_SOURCE};
    const int failed = list_waiting(client, &request) != 0 || list_later(client, &request) != 0;
    msgclient_close(client);
    return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}
