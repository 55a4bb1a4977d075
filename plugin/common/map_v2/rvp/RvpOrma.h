// Platform shims: operating-system calls under the names the common code is written against.
//
// Thin free functions over POSIX; the critical sections are the library's only locking primitives.
// None throws. Failures are reported as each function says, which is not always what one expects:
// callers rely on the results as they are.
#ifndef RVP_RVPORMA_H
#define RVP_RVPORMA_H

#include <pthread.h>

void InitializeCriticalSection(pthread_mutex_t* section);
// 0 or the errno value of the mutex call; likewise the next two.
int EnterCriticalSection(pthread_mutex_t* section);
int LeaveCriticalSection(pthread_mutex_t* section);
int DeleteCriticalSection(pthread_mutex_t* section);

// The current errno.
int GetLastError();

// Writes the temporary directory without a trailing slash; always 1.
int GetTempPath(int size, char* buffer);
// Writes directory/prefixRANDOM_PID_COUNTER; creates nothing; `unique` is not used; always 1.
int GetTempFileName(char* directory, int size, char* prefix, unsigned int unique, char* result);

// False when the destination exists and may not be overwritten, and after a read or write error
// (the destination is then removed). True otherwise, even when a file could not be opened.
bool CopyFile(const char* source, const char* destination, bool overwrite);
// True when the file was unlinked.
bool DeleteFile(const char* name);

// Writes `value` in `base` (2 to 36, lower case; else an empty string) and returns `buffer`, which
// must hold 34 bytes for base 2.
char* _itoa(int value, char* buffer, int base);

// The handle, or null; symbols resolve lazily and globally.
void* LoadLibrary(const char* name);
// 0 when the handle was closed.
int FreeLibrary(void* handle);
void* GetProcAddress(void* handle, const char* symbol);

#endif
