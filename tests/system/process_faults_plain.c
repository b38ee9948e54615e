/*
 * A program in C that loads the library and ends in the way that its arguments say while a stream is open:
 * process_faults_plain LIBRARY URL WAY. 0 when everything went as it should.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

typedef unsigned int Open(const char*, int);
typedef int Read(unsigned int, unsigned char*, unsigned int);
typedef int Close(unsigned int);

static void* exitFromThread(void* unused)
{
    (void)unused;
    exit(0);
}

/* A child that does nothing with the stream, and the parent reads on. */
static int forkAndReadOn(Read* read, unsigned int handle)
{
    static unsigned char buffer[100000];
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        return 6;
    }
    return read(handle, buffer, sizeof buffer) == (int)sizeof buffer ? 0 : 7;
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        return 100;
    }
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    Open* openStream = NULL;
    Read* readStream = NULL;
    Close* closeStream = NULL;
    *(void**)&openStream = dlsym(library, "mdch_UrlOpen");
    *(void**)&readStream = dlsym(library, "mdch_UrlRead");
    *(void**)&closeStream = dlsym(library, "mdch_UrlClose");
    if (openStream == NULL || readStream == NULL || closeStream == NULL) {
        return 3;
    }
    unsigned char buffer[1000];
    const unsigned int handle = openStream(argv[2], 0);
    if (handle == 0 || readStream(handle, buffer, sizeof buffer) != (int)sizeof buffer) {
        return 4;
    }
    const char* way = argv[3];
    if (strcmp(way, "unload") == 0) {
        if (closeStream(handle) != 0) {
            return 5;
        }
        dlclose(library);
        library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL); /* and once more */
        const unsigned int again = library != NULL ? openStream(argv[2], 0) : 0;
        return again != 0 && readStream(again, buffer, sizeof buffer) == (int)sizeof buffer ? 0 : 8;
    }
    if (strcmp(way, "thread") == 0) {
        pthread_t thread;
        pthread_create(&thread, NULL, exitFromThread, NULL);
        pthread_join(thread, NULL);
        return 9;
    }
    if (strcmp(way, "fork") == 0) {
        return forkAndReadOn(readStream, handle);
    }
    if (strcmp(way, "quick") == 0) {
        quick_exit(0);
    }
    if (strcmp(way, "at once") == 0) {
        _exit(0);
    }
    return strcmp(way, "return") == 0 ? 0 : 101;
}
