/*
 * The lock-order check behind mdp_thread.h: per thread, which leveled locks are held.
 *
 * Compiled to nothing when NDEBUG is defined. Locks of order 0 are not tracked. No lock of its own: all
 * state is the thread's.
 */
#ifndef MDP_LOCKORDER_H
#define MDP_LOCKORDER_H

#include "mdp_thread.h"

#ifdef NDEBUG
inline void mdpLockOrderCheck(const void* /*lock*/, const MdpLockLevel& /*level*/) {}
inline void mdpLockOrderAdd(const void* /*lock*/, const MdpLockLevel& /*level*/) {}
inline void mdpLockOrderRemove(const void* /*lock*/, const MdpLockLevel& /*level*/) {}
inline void mdpLockOrderCheckHeldOnce(const void* /*lock*/, const MdpLockLevel& /*level*/) {}
#else
/* Aborts with both names when the thread holds a later lock, or another lock of the same level. */
void mdpLockOrderCheck(const void* lock, const MdpLockLevel& level);
void mdpLockOrderAdd(const void* lock, const MdpLockLevel& level);
void mdpLockOrderRemove(const void* lock, const MdpLockLevel& level);
/* Aborts when the thread does not hold the lock exactly once: a wait would not release it. */
void mdpLockOrderCheckHeldOnce(const void* lock, const MdpLockLevel& level);
#endif

#endif
