#include "toolstests.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int failures = 0;
    failures += runCrcTests(argc, argv);
    failures += runModbusTests(argc, argv);
    failures += runHexParserTests(argc, argv);
    failures += runFuzzSeedTests(argc, argv);
    return failures == 0 ? 0 : 1;
}
