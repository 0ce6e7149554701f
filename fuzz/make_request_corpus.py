#!/usr/bin/env python3
"""Writes the starting corpus of request_fuzz: requests as the device's processes send them,
one file each: every request code, each setter key, each profile, and a few whole
configurations."""
import json
import os
import sys

GET_PTP_INFO, SET_PTP_PARAMETER, GET_RUNNING_CFG, SET_RUNNING_CFG, GET_PTP_STATS, \
    GET_INTERNAL_DEBUG_INFO = range(6)

PROFILES = ["AES67:Media", "IEEE1588:Default", "SMPTE:2059-2", "GPTP:L2"]

REQUESTS = {
    "get_ptp_info": {"cmd": GET_PTP_INFO},
    "get_running_cfg": {"cmd": GET_RUNNING_CFG, "data": None},
    "get_ptp_stats": {"cmd": GET_PTP_STATS, "data": {}},
    "get_internal_debug_info": {"cmd": GET_INTERNAL_DEBUG_INFO},
    "unknown_code": {"cmd": 6},
    "set_domain": {"cmd": SET_PTP_PARAMETER, "data": {"domain": 4}},
    "set_priorities": {"cmd": SET_PTP_PARAMETER, "data": {"priority1": 90, "priority2": 110}},
    "set_port_intervals": {"cmd": SET_PTP_PARAMETER, "data": {
        "port": 1, "announceInterval": 0, "announceReceiptTimeout": 3, "syncInterval": -3}},
    "set_slave_only": {"cmd": SET_PTP_PARAMETER, "data": {"slaveOnly": True}},
    "set_slave_only_and_profile": {"cmd": SET_PTP_PARAMETER, "data": {
        "slaveOnly": False, "profile": "SMPTE:2059-2"}},
    "running_cfg_whole": {"cmd": SET_RUNNING_CFG, "data": {
        "profile": "AES67:Media", "domainNumber": 0, "priority1": 100, "priority2": 101,
        "slaveOnly": 0, "cfgFilePath": "",
        "port": [{"port": 1, "syncInterval": -3, "announceInterval": 1,
                  "announceReceiptTimeout": 3}]}},
    "running_cfg_missing_file": {"cmd": SET_RUNNING_CFG, "data": {
        "profile": "IEEE1588:Default", "cfgFilePath": "-no such file"}},
    # request_fuzz.sh provides this file in the run's working directory.
    "running_cfg_odd_file": {"cmd": SET_RUNNING_CFG, "data": {
        "profile": "IEEE1588:Default", "cfgFilePath": "-my 'odd' $(touch owned) `x`;\\.cfg"}},
}
for profile in PROFILES:
    name = profile.split(":")[0].lower()
    REQUESTS["set_profile_" + name] = {"cmd": SET_PTP_PARAMETER, "data": {"profile": profile}}
    REQUESTS["running_cfg_" + name] = {"cmd": SET_RUNNING_CFG, "data": {"profile": profile}}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__),
                                                             "corpus-request")
    os.makedirs(out, exist_ok=True)
    for name, request in REQUESTS.items():
        with open(os.path.join(out, name), "w") as f:
            f.write(json.dumps(request, separators=(",", ":")))


if __name__ == "__main__":
    main()
