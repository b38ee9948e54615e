#ifndef MDC_HLP_EXPORT_H
#define MDC_HLP_EXPORT_H

/* Marks what the shared library exports; everything else is built with hidden visibility. */
#define MDCH_API __attribute__((visibility("default")))

/* Keeps what is nested in an exported class inside. */
#define MDCH_LOCAL __attribute__((visibility("hidden")))

#endif
