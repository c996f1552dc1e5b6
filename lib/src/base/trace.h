// Trace markers for rarely taken branches, and the mark of rarely run
// functions. The markers bypass the log channels on purpose: they are
// printed whatever the channel levels say.
#ifndef ZELTA_SRC_BASE_TRACE_H_
#define ZELTA_SRC_BASE_TRACE_H_

#include <cstdio>

// Blue marker on standard output: a rare branch was reached.
#define ZELTA_TRACE() ZELTA_TRACE_AS(__func__)
// The same naming `function`: for a branch that moved out of the function
// whose name its marker has always carried.
#define ZELTA_TRACE_AS(function) \
  printf("\033[00;34m[TRACE] %s:%s:%d: here!\033[00m\n", __FILE__, function, __LINE__)

// For a function that runs rarely (start-up, a SET's checks): built for size,
// and what only it calls with it.
#define ZELTA_COLD __attribute__((cold))

// Red marker on standard error, followed by an empty line: a failure.
#define ZELTA_TRACE_FAILURE() \
  fprintf(stderr, "\033[00;31m[TRACE] %s:%s:%d: here!\033[00m\n\n", __FILE__, __func__, __LINE__)

#endif  // ZELTA_SRC_BASE_TRACE_H_
