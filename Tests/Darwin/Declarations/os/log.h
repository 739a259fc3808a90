#pragma once
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;
enum { OS_LOG_TYPE_INFO = 0x01, OS_LOG_TYPE_DEBUG = 0x02, OS_LOG_TYPE_ERROR = 0x10 };
os_log_t os_log_create(const char* subsystem, const char* category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);
// Stands for what the real macro comes to; the attribute checks the format as the real one does.
void _os_log_impl(os_log_t log, os_log_type_t type, const char* format, ...) __attribute__((format(__os_log__, 3, 4)));
#define os_log_with_type(log, type, format, ...) _os_log_impl((log), (type), "" format "", ##__VA_ARGS__)
#ifdef __cplusplus
}
#endif
