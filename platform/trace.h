/// @file
/// The tracing interface that the device's libraries provide and that libtrace stands in for elsewhere.
///
/// On the device `libtrace` and `libframework` define these two names; on a development machine the small
/// library of this folder does. Either way the trace object's first field is the current trace level.
#ifndef KX_TRACE_H
#define KX_TRACE_H

#ifdef __cplusplus
extern "C" {
#endif

/// What the trace level is read from; the device's own has further fields behind it.
struct trace_object_t {
  int level;  ///< 0 writes nothing, 3 errors, 4 warnings, 6 information, 7 to 9 debugging
};

/// The process's trace object; null means that no line is written.
extern struct trace_object_t* g_traceObject;

/// Reports a broken invariant and returns.
/// @param expression  text of the expression that does not hold
/// @param path        source file that found it
/// @param line        line in that file
/// @param function    signature of the function that found it
void logAssertFailed(const char* expression, const char* path, int line, const char* function);

#ifdef __cplusplus
}
#endif

#endif
