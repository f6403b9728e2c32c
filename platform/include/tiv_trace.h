// Platform trace and service-call failure notification. Both are safe to call
// from any thread.
#ifndef TIV_TRACE_H
#define TIV_TRACE_H

// Writes one printf-formatted trace line for `module` at `level`.
int tivGENTrcPrintf(unsigned int module, unsigned int level, unsigned int flag,
                    const char* format, ...) __attribute__((format(printf, 4, 5)));

// Reports a failed service call: `code` with two detail words and the place
// (source file, function, line) where it was seen.
void put_lib_svccall_notify(unsigned int code, unsigned int detail1, unsigned int detail2,
                            const char* file, const char* function, int line);

#endif  // TIV_TRACE_H
