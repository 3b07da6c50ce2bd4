#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# A pymodbus TCP server for interop tests: serves known values in all four tables on
# 127.0.0.1:<port> (addresses from 0) and exits by itself after <seconds>.
import asyncio
import sys

from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.server import StartAsyncTcpServer


async def main(port, seconds):
    store = ModbusSlaveContext(
        di=ModbusSequentialDataBlock(0, [1, 0, 1, 1, 0, 0, 0, 1]),
        co=ModbusSequentialDataBlock(0, [0, 1, 0, 1, 0, 0, 0, 0]),
        hr=ModbusSequentialDataBlock(0, [100, 200, 300, 400, 0, 0, 0, 0]),
        ir=ModbusSequentialDataBlock(0, [11, 22, 33, 65535, 0, 0, 0, 0]),
        zero_mode=True,
    )
    context = ModbusServerContext(slaves=store, single=True)
    server = asyncio.ensure_future(StartAsyncTcpServer(context, address=("127.0.0.1", port)))
    await asyncio.sleep(seconds)
    server.cancel()


if __name__ == "__main__":
    asyncio.run(main(int(sys.argv[1]), float(sys.argv[2]) if len(sys.argv) > 2 else 30.0))
