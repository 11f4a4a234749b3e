/*
 * Host interface of a platform-driver plug-in.
 *
 * The hardware-management daemon (the host) compiles against this header,
 * loads the plug-in with dlopen() and calls the exported entry points below.
 * The plug-in calls back into the host through the host services, which it
 * imports as weak symbols so that it still loads into a host lacking one.
 *
 * Layout rules (the host and the plug-in must agree on them byte for byte):
 *  - Every C object handed to the host starts with a pointer-wide word owned
 *    by the host and a pointer to a constant callback table. Objects other
 *    than the system object carry a third member, the plug-in's owner.
 *  - Every callback table starts with a 32-bit size holding sizeof the table,
 *    then the callbacks in the order below; an absent callback is null.
 *  - The layout is the natural C layout; the sizes on 32-bit x86 and x86-64
 *    are pinned by the assertions at the end of this header.
 */
#ifndef KELDO_PL_HOST_H
#define KELDO_PL_HOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PL_EXPORT __attribute__((visibility("default")))
#define PL_HOST_SERVICE __attribute__((weak, visibility("default")))

/* Status of every entry point and callback. */
typedef int pl_status;
enum {
    PL_STATUS_OK = 0,
    PL_STATUS_HW_FAULT = 2,     /* hardware fault condition, reading not obtained */
    PL_STATUS_BAD_INPUT = 3,    /* unparsable topology, unsupported LED setting */
    PL_STATUS_UNAVAILABLE = 4,  /* proxy socket not set up, implausible reading, short read */
    PL_STATUS_NOT_PROVIDED = 5, /* operation not provided by the plug-in */
    PL_STATUS_INTERNAL = 6      /* internal failure, failed or malformed proxy answer */
};

typedef enum pl_led_status {
    PL_LED_OFF = 0,
    PL_LED_GOOD = 1,
    PL_LED_WARNING = 2,
    PL_LED_BAD = 3,
    PL_LED_INACTIVE = 4,
    PL_LED_UNKNOWN = 5,
    PL_LED_BEACON = 6
} pl_led_status;

/* Handles of the host's timer and descriptor-watcher services. */
typedef uint32_t pl_timer_handle;
typedef uint32_t pl_fd_watcher_handle;
typedef void (*pl_timer_callback)(void* context);

struct pl_system_ops;
struct pl_slot_ops;
struct pl_led_ops;
struct pl_temp_sensor_ops;
struct pl_fan_ops;
struct pl_xcvr_ops;
struct pl_psu_ops;
struct pl_gpio_ops;
struct pl_smbus_ops;

/* ---- C objects ---------------------------------------------------------- */

typedef struct pl_system {
    void* host;                      /* the plug-in sets it to 0 */
    const struct pl_system_ops* ops;
} pl_system;

#define PL_DECLARE_OBJECT(kind)                  \
    typedef struct pl_##kind {                   \
        void* host;                              \
        const struct pl_##kind##_ops* ops;       \
        void* owner;                             \
    } pl_##kind

PL_DECLARE_OBJECT(slot);
PL_DECLARE_OBJECT(led);
PL_DECLARE_OBJECT(temp_sensor);
PL_DECLARE_OBJECT(fan);
PL_DECLARE_OBJECT(xcvr);
PL_DECLARE_OBJECT(psu);
PL_DECLARE_OBJECT(gpio);
PL_DECLARE_OBJECT(smbus);

#undef PL_DECLARE_OBJECT

/* ---- Callback tables ------------------------------------------------------ */

typedef struct pl_system_ops {
    uint32_t size;
    pl_status (*poweroff)(pl_system*);
    pl_status (*powercycle)(pl_system*);
    pl_status (*get_reload_cause)(pl_system*, char (*)[100], long*, char (*)[500]);
    void* reserved; /* a host operation the plug-in does not provide */
} pl_system_ops;

typedef struct pl_slot_ops {
    uint32_t size;
    pl_status (*get_presence)(pl_slot*, char**);
} pl_slot_ops;

typedef struct pl_led_ops {
    uint32_t size;
    pl_status (*set_light_setting)(pl_led*, pl_led_status);
} pl_led_ops;

typedef struct pl_temp_sensor_ops {
    uint32_t size;
    void* reserved;
    pl_status (*get_temperature)(pl_temp_sensor*, float*);
} pl_temp_sensor_ops;

typedef struct pl_fan_ops {
    uint32_t size;
    pl_status (*debug_info)(const pl_fan*, char**);
    pl_status (*get_rpm)(pl_fan*, int*);
    pl_status (*set_rpm)(pl_fan*, int);
} pl_fan_ops;

enum { PL_XCVR_FAMILY_SFP = 0, PL_XCVR_FAMILY_QSFP = 1 };

typedef struct pl_sfp_ops {
    uint32_t size; /* sizeof this family part */
    pl_status (*get_presence)(pl_xcvr*);
    pl_status (*get_tx_fault)(pl_xcvr*, int*);
    pl_status (*get_rx_los)(pl_xcvr*, int*);
    pl_status (*get_tx_disable)(pl_xcvr*, int*);
    pl_status (*set_tx_disable)(pl_xcvr*, int);
} pl_sfp_ops;

typedef struct pl_qsfp_ops {
    uint32_t size; /* sizeof this family part */
    pl_status (*get_presence)(pl_xcvr*);
    pl_status (*get_mod_sel)(pl_xcvr*, int*);
    pl_status (*set_mod_sel)(pl_xcvr*, int);
    pl_status (*get_lp_mode)(pl_xcvr*, int*);
    pl_status (*set_lp_mode)(pl_xcvr*, int);
    pl_status (*get_reset)(pl_xcvr*, int*);
    pl_status (*set_reset)(pl_xcvr*, int);
    pl_status (*get_interrupt)(pl_xcvr*, int*);
} pl_qsfp_ops;

typedef struct pl_xcvr_ops {
    uint32_t size;
    uint32_t family; /* PL_XCVR_FAMILY_* */
    union {
        pl_sfp_ops sfp;
        pl_qsfp_ops qsfp;
    } u;
} pl_xcvr_ops;

typedef struct pl_psu_ops {
    uint32_t size;
    void* reserved;
    pl_status (*get_power_ok)(pl_psu*, int*);
    pl_status (*get_input_current)(pl_psu*, float*);
    pl_status (*get_output_current)(pl_psu*, float*);
    pl_status (*get_input_voltage)(pl_psu*, float*);
    pl_status (*get_output_voltage)(pl_psu*, float*);
    pl_status (*get_input_power)(pl_psu*, float*);
    pl_status (*get_output_power)(pl_psu*, float*);
} pl_psu_ops;

typedef struct pl_gpio_ops {
    uint32_t size;
    pl_status (*bit_set)(pl_gpio*);
    pl_status (*bit_clear)(pl_gpio*);
    pl_status (*bit_read)(pl_gpio*, unsigned int*);
} pl_gpio_ops;

typedef struct pl_smbus_ops {
    uint32_t size;
    pl_status (*quick_command)(pl_smbus*, int);
    pl_status (*receive_byte)(pl_smbus*, uint8_t*);
    pl_status (*send_byte)(pl_smbus*, uint8_t);
    pl_status (*read_byte)(pl_smbus*, uint8_t, uint8_t*);
    pl_status (*write_byte)(pl_smbus*, uint8_t, uint8_t);
    pl_status (*read_word)(pl_smbus*, uint8_t, uint16_t*);
    pl_status (*write_word)(pl_smbus*, uint8_t, uint16_t);
    pl_status (*block_read)(pl_smbus*, uint8_t, uint8_t*, unsigned int*);
    pl_status (*block_write)(pl_smbus*, uint8_t, const uint8_t*, unsigned int);
    pl_status (*i2c_block_read)(pl_smbus*, uint8_t, uint8_t*, unsigned int);
    pl_status (*i2c_block_write)(pl_smbus*, uint8_t, const uint8_t*, unsigned int);
    pl_status (*process_call)(pl_smbus*, uint8_t, uint16_t, uint16_t*);
    pl_status (*block_process_call)(pl_smbus*, uint8_t, const uint8_t*, uint8_t, uint8_t*, uint8_t*);
} pl_smbus_ops;

/* ---- Host services (provided by the host, imported weak) ----------------- */

PL_HOST_SERVICE void pl_trace(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
PL_HOST_SERVICE pl_timer_handle pl_timer_add(pl_timer_callback callback, void* context);
PL_HOST_SERVICE int pl_timer_set(pl_timer_handle timer, uint32_t intervalMs);
PL_HOST_SERVICE void pl_timer_delete(pl_timer_handle timer);
PL_HOST_SERVICE void pl_fd_watcher_delete(pl_fd_watcher_handle watcher);

/* ---- Plug-in entry points (exported by the plug-in) ---------------------- */

PL_EXPORT pl_status pl_system_init(const char* topologyJson);
PL_EXPORT pl_status pl_slot_init(const char* topologyJson);
PL_EXPORT pl_status pl_led_init(const char* topologyJson);
PL_EXPORT pl_status pl_temp_sensor_init(const char* topologyJson);
PL_EXPORT pl_status pl_fan_init(const char* topologyJson);
PL_EXPORT pl_status pl_xcvr_init(const char* topologyJson);
PL_EXPORT pl_status pl_psu_init(const char* topologyJson);
PL_EXPORT pl_status pl_gpio_init(const char* topologyJson);
PL_EXPORT pl_status pl_smbus_init(const char* topologyJson);

PL_EXPORT pl_system* pl_system_add(const char* objectJson);
PL_EXPORT pl_slot* pl_slot_add(const char* objectJson);
PL_EXPORT pl_led* pl_led_add(const char* objectJson);
PL_EXPORT pl_temp_sensor* pl_temp_sensor_add(const char* objectJson, float alertThreshold,
                                             float criticalThreshold);
PL_EXPORT pl_fan* pl_fan_add(const char* objectJson);
PL_EXPORT pl_xcvr* pl_xcvr_add(const char* objectJson);
PL_EXPORT pl_psu* pl_psu_add(const char* objectJson);
PL_EXPORT pl_gpio* pl_gpio_add(const char* objectJson);
PL_EXPORT pl_smbus* pl_smbus_add(const char* objectOrBus, uint8_t address);

#ifdef __cplusplus
} /* extern "C" */

/* The whole-chassis operations keep their C++ signatures in their symbols. */
PL_EXPORT pl_status pl_system_poweroff(pl_system* system);
PL_EXPORT pl_status pl_system_powercycle(pl_system* system);
PL_EXPORT pl_status pl_system_get_reload_cause(pl_system* system, char (*cause)[100], long* time,
                                               char (*description)[500]);
#endif

/* ---- Layout pins ---------------------------------------------------------- */

#ifdef __cplusplus
#define PL_STATIC_ASSERT static_assert
#else
#define PL_STATIC_ASSERT _Static_assert
#endif

#define PL_PTR sizeof(void*)
PL_STATIC_ASSERT(sizeof(pl_system) == 2 * PL_PTR, "pl_system: host word and ops");
PL_STATIC_ASSERT(sizeof(pl_led) == 3 * PL_PTR, "object: host word, ops, owner");
PL_STATIC_ASSERT(sizeof(pl_system_ops) == (PL_PTR == 4 ? 20 : 40), "system table");
PL_STATIC_ASSERT(sizeof(pl_slot_ops) == (PL_PTR == 4 ? 8 : 16), "slot table");
PL_STATIC_ASSERT(sizeof(pl_led_ops) == (PL_PTR == 4 ? 8 : 16), "led table");
PL_STATIC_ASSERT(sizeof(pl_temp_sensor_ops) == (PL_PTR == 4 ? 12 : 24), "temp sensor table");
PL_STATIC_ASSERT(sizeof(pl_fan_ops) == (PL_PTR == 4 ? 16 : 32), "fan table");
PL_STATIC_ASSERT(sizeof(pl_xcvr_ops) == (PL_PTR == 4 ? 44 : 80), "xcvr table");
PL_STATIC_ASSERT(sizeof(pl_sfp_ops) == (PL_PTR == 4 ? 24 : 48), "sfp family part");
PL_STATIC_ASSERT(sizeof(pl_qsfp_ops) == (PL_PTR == 4 ? 36 : 72), "qsfp family part");
PL_STATIC_ASSERT(sizeof(pl_psu_ops) == (PL_PTR == 4 ? 36 : 72), "psu table");
PL_STATIC_ASSERT(sizeof(pl_gpio_ops) == (PL_PTR == 4 ? 16 : 32), "gpio table");
PL_STATIC_ASSERT(sizeof(pl_smbus_ops) == (PL_PTR == 4 ? 56 : 112), "smbus table");
#undef PL_PTR
#undef PL_STATIC_ASSERT

#endif /* KELDO_PL_HOST_H */
