/*
 * Where trace text goes as long as no sink is set: a platform's own place.
 */
#ifndef MDP_DEBUG_OUTPUT_H
#define MDP_DEBUG_OUTPUT_H

/* An mdpDebugSink: calls are serialised; context is null. */
void mdpDebugOutput(void* context, unsigned int level, const char* text);

#endif
