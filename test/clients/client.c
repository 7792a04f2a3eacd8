// Runs what comes on standard input by hiredis: client PORT
#include <hiredis/hiredis.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { wordsMax = 10001, wordSize = 16, bigSize = 1 << 20 };

static redisContext* context;
static redisReply* latest;

static redisReply* got(void* reply) {
    if (reply == NULL) {
        fprintf(stderr, "%s\n", context->errstr);
        exit(1);
    }
    freeReplyObject(latest);
    return latest = reply;
}

static void print(redisReply const* reply) {
    if (reply->type == REDIS_REPLY_INTEGER)
        printf("%lld", reply->integer);
    else if (reply->type == REDIS_REPLY_NIL)
        printf("null");
    else if (reply->type != REDIS_REPLY_ARRAY)
        printf("\"%s%s\"", reply->type == REDIS_REPLY_ERROR ? "!" : "", reply->str);
    else {
        for (size_t i = 0; i < reply->elements; ++i) {
            printf(i == 0 ? "[" : ", ");
            print(reply->element[i]);
        }
        printf(reply->elements == 0 ? "[]" : "]");
    }
}

/// COMMAND n:0 [VALUE] n:1 [VALUE] ...
static redisReply* askMany(char const* command, int count, char const* value) {
    static char keys[wordsMax][wordSize];
    char const* words[wordsMax] = {command};
    int size = 1;
    for (int i = 0; i < count; ++i) {
        snprintf(keys[i], wordSize, "n:%d", i);
        words[size++] = keys[i];
        if (value != NULL)
            words[size++] = value;
    }
    return got(redisCommandArgv(context, size, words, NULL));
}

int main(int argc, char** argv) {
    static char line[256], big[bigSize];
    void* reply = NULL;
    context = redisConnect("127.0.0.1", argc > 1 ? atoi(argv[1]) : 0);
    for (; fgets(line, sizeof line, stdin) != NULL; puts("")) {
        line[strcspn(line, "\n")] = '\0';
        print(got(redisCommand(context, line)));
    }
    got(redisCommand(context, "SET big %b", memset(big, 'x', bigSize), (size_t)bigSize));
    printf("[%zu", (size_t)got(redisCommand(context, "GET big"))->len);
    askMany("MSET", 5000, "value");
    printf(", %lld", askMany("DEL", 2000, NULL)->integer);
    for (int i = 0; i < 1000; ++i)
        redisAppendCommand(context, "INCR counter");
    for (int i = 0; i < 1000; ++i)
        got(redisGetReply(context, &reply) == REDIS_OK ? reply : NULL);
    printf(", %lld]\n", latest->integer);
}
