# Every source of the driver, for the native build and for the image alike.
set(NETSIEVE_DRIVER_SOURCES
    driver/data_path.cpp
    driver/driver_entry.cpp
    driver/event_handlers.cpp
    driver/locked_list.cpp
    driver/module_lifecycle.cpp
    driver/module_reference.cpp
    driver/trace_log.cpp
    hook/hook_notify.cpp
    hook/hook_table.cpp
    hook/protocol_table.cpp
    packet/nirp_pool.cpp
    packet/outstanding.cpp
    packet/pending.cpp
    packet/receive_path.cpp
    packet/send_path.cpp)
