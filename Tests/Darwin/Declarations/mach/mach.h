#pragma once
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif
typedef int kern_return_t, integer_t, host_flavor_t;
typedef unsigned int natural_t, mach_port_t, mach_port_name_t, mach_msg_type_number_t, host_t, task_port_t, ipc_space_t;
typedef integer_t* host_info_t;
#define KERN_SUCCESS 0
enum { CPU_STATE_USER, CPU_STATE_SYSTEM, CPU_STATE_IDLE, CPU_STATE_NICE, CPU_STATE_MAX };
#define HOST_CPU_LOAD_INFO 3
typedef struct host_cpu_load_info { natural_t cpu_ticks[CPU_STATE_MAX]; } host_cpu_load_info_data_t;
#define HOST_CPU_LOAD_INFO_COUNT ((mach_msg_type_number_t)(sizeof(host_cpu_load_info_data_t) / sizeof(integer_t)))
extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_
mach_port_t mach_host_self(void);
kern_return_t host_statistics(host_t host, host_flavor_t flavor, host_info_t info, mach_msg_type_number_t* count);
kern_return_t mach_port_deallocate(ipc_space_t task, mach_port_name_t name);
#ifdef __cplusplus
}
#endif
