/*
 * The record of one thread that waits for several HTTP streams at once.
 *
 * It lives on the waiting thread's stack; each descriptor it waits for keeps a pointer to it until the
 * thread takes it out again. Its own mutex is the last in the lock order.
 */
#ifndef MDC_HLP_HTTP_SELECT_H
#define MDC_HLP_HTTP_SELECT_H

#include <pthread.h>
#include <sys/select.h>

namespace md {

struct MdchHttpSelect_struct
{
    MdchHttpSelect_struct() = default;
    MdchHttpSelect_struct(const MdchHttpSelect_struct&) = delete;
    MdchHttpSelect_struct& operator=(const MdchHttpSelect_struct&) = delete;

    fd_set readSet{};        // numbers that became readable or were closed; guarded by mutex
    fd_set writeSet{};       // stays empty
    fd_set exceptSet{};      // stays empty
    pthread_mutex_t mutex{}; // guards the sets; initialised by the waiting thread
    pthread_cond_t cond{};   // broadcast when a bit is set
};

} // namespace md

#endif
