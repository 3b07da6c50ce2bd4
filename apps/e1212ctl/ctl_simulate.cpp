// SPDX-License-Identifier: MIT
// e1212ctl's simulator subcommand: simulate. Its work, and the embedded simulator, live in
// the simulator library, loaded on first use.
#include "ctl_simulate.h"

#include "ctllibrary.h"
#include "ctlsession.h"
#include "ctlstep.h"

namespace {

void simulate(CtlStep &step)
{
    ctlRunFromLibrary(step, QStringLiteral("simulator"), "e1212ctlSimulate");
}

} // namespace

CtlSimulator *ctlStartSimulator(QString *error)
{
    const auto start = reinterpret_cast<CtlSimulator *(*)(QString *)>(ctlLibraryEntry(QStringLiteral("simulator"), "e1212ctlStartSimulator", error));
    return start ? start(error) : nullptr;
}

CtlGroup simulateGroup()
{
    const QString indent(25, QLatin1Char(' '));
    return {QStringLiteral("Simulator"),
            {
                {QStringLiteral("simulate"), QString(),
                 QStringLiteral("serve a simulated E1212 over Modbus TCP (default 127.0.0.1:5020) until stopped; "
                                "DIn=0/1 lines on standard input set its inputs"),
                 &simulate,
                 {{QStringLiteral("listen"), QStringLiteral("the address to serve on (port 0: a free one)"), QStringLiteral("ADDRESS:PORT")},
                  {QStringLiteral("input"), QStringLiteral("set input DIn at start (repeatable)"), QStringLiteral("DIn=V")},
                  {QStringLiteral("latency"), QStringLiteral("delay every answer by MS, 0-60000 (a slow module on a long link)"),
                   QStringLiteral("MS")},
                  {QStringLiteral("max-connections"),
                   QStringLiteral("serve at most N clients at once, 1-64; one more is accepted and closed at once, as a "
                                  "full module does, and counted"),
                   QStringLiteral("N")},
                  {QStringLiteral("log"),
                   QStringLiteral("print each request served: time, client, function code, address, count or values, "
                                  "and the exception sent (and each refused client)")},
                  {QStringLiteral("mac"),
                   QStringLiteral("the MAC address XX:XX:XX:XX:XX:XX in input registers 5024-5026; default 00:90:E8:00 "
                                  "and the port's two bytes"),
                   QStringLiteral("MAC")},
                  {QStringLiteral("fault"),
                   QStringLiteral("inject a fault (repeatable):\n")
                       + indent + QStringLiteral("silence           hold every answer back (the requests are still served)\n")
                       + indent + QStringLiteral("delay:MS          as --latency MS\n")
                       + indent + QStringLiteral("exception:TABLE:ADDRESS:CODE  answer requests touching ADDRESS of TABLE\n")
                       + indent + QStringLiteral("                  (coils, discreteInputs, inputRegisters, holdingRegisters)\n")
                       + indent + QStringLiteral("                  with Modbus exception CODE 1-255, e.g. exception:coils:16:2\n")
                       + indent + QStringLiteral("duplicate         send every answer twice, as a faulty gateway does\n")
                       + indent + QStringLiteral("garbage           send as many random bytes instead of every answer\n")
                       + indent + QStringLiteral("random            every 2-8 s one of: silence for 0.5-5 s, every connection\n")
                       + indent + QStringLiteral("                  reset, garbage for 0.2-1 s, or nothing; each printed"),
                   QStringLiteral("KIND")}},
                 CtlCommand::CommandLineOnly},
            }};
}
