// SPDX-License-Identifier: MIT
// The least a Qt Core command line does: build the application object and return.
#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    return 0;
}
