"""The configuration part of the agent's process-wide record, typed from its description alone."""

import ctypes

EVENTS = ("PTHREAD", "SLEEP", "WAIT", "LOCK", "IO_SYNC", "IO", "SYSCALL")
# every event that the "all system calls" key reaches beside its own
SYSCALL_CLASSES = ("SLEEP", "WAIT", "LOCK", "IO_SYNC", "IO", "SYSCALL")


class UmaConfig(ctypes.Structure):
    _fields_ = [
        ("profile_children", ctypes.c_bool),
        ("launch_pid", ctypes.c_int32),
        ("mpi_rank", ctypes.c_int16),
        ("call_stack_depth", ctypes.c_uint32),
        ("openmp_agent_path", ctypes.c_uint64),
        ("python_script_path", ctypes.c_uint64),
        ("python_lib_path", ctypes.c_uint64),
        ("python_trace_type", ctypes.c_uint64),
        ("shm_name", ctypes.c_uint64),
        ("cpu_profiling_dir", ctypes.c_uint64),
        ("metadata_dir", ctypes.c_uint64),
        ("user_mode_agent_path", ctypes.c_uint64),
    ]


STRINGS = [name for name, kind in UmaConfig._fields_ if kind is ctypes.c_uint64]


class UmsConfig(ctypes.Structure):
    _fields_ = [
        ("enable", ctypes.c_bool),
        ("collect_call_stack", ctypes.c_bool),
        ("signal", ctypes.c_uint8),
        ("flags", ctypes.c_uint16),
        ("interval", ctypes.c_uint64),
        ("events", ctypes.c_uint32),
        ("pmc_events", ctypes.c_uint64 * 64),
        ("encoded_events", ctypes.c_uint64 * 64),
        ("record_length", ctypes.c_uint64),
    ]


class UmtEvent(ctypes.Structure):
    _fields_ = [("enable", ctypes.c_bool), ("callstack", ctypes.c_bool), ("threshold", ctypes.c_uint64)]


class UmtConfig(ctypes.Structure):
    _fields_ = [("enable", ctypes.c_bool), ("event_list", UmtEvent * 7)]


class UmaData(ctypes.Structure):
    _fields_ = [("list", ctypes.c_uint64), ("list_end", ctypes.c_uint64), ("queue", ctypes.c_uint64),
                ("fd", ctypes.c_int), ("is_trace", ctypes.c_bool), ("lock", ctypes.c_uint64 * 5),
                ("lost", ctypes.c_uint32)]


class ProfileInfo(ctypes.Structure):
    _fields_ = [("uma", UmaConfig), ("ums", UmsConfig), ("umt", UmtConfig),
                ("ums_data", UmaData), ("umt_data", UmaData),
                ("metadata_fd", ctypes.c_int), ("log_fd", ctypes.c_int), ("err_fd", ctypes.c_int),
                ("shm_fd", ctypes.c_int)]

    def event(self, name):
        event = self.umt.event_list[EVENTS.index(name)]
        return event.enable, event.threshold, event.callstack


def read_profile_info(session, config, **options):
    """The record and its strings, as a program finds them that starts with this configuration file."""
    session.write_config(config)
    offsets = [getattr(UmaConfig, name).offset for name in STRINGS]
    run = session.run("profile_info", ctypes.sizeof(ProfileInfo), *offsets, **options)
    assert run.status == 0, run.err
    record, *strings = run.out.decode("latin-1").split("\n")[:-1]
    info = ProfileInfo.from_buffer_copy(bytes.fromhex(record))
    info.strings = dict(zip(STRINGS, strings))
    info.run = run
    return info
