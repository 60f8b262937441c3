#pragma once

// The tool tests are several Qt Test classes in one executable (fewer links
// on a two-core machine); each file offers its runner to main().
int runCrcTests(int argc, char **argv);
int runModbusTests(int argc, char **argv);
int runHexParserTests(int argc, char **argv);
int runFuzzSeedTests(int argc, char **argv);
