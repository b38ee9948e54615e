#ifndef MDP_EXPORT_H
#define MDP_EXPORT_H

/* Marks what the shared library exports; everything else is built with hidden visibility. */
#define MDP_API __attribute__((visibility("default")))

#endif
