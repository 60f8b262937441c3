#pragma once

#include <QList>
#include <QStringList>

// The schema as numbered steps. A step is never edited once released: a
// change to the schema is a new step at the end. Each step's statements run
// in one transaction together with the record of its number.
struct Migration
{
    int version;
    QStringList statements;
};

enum class SqlDialect { Sqlite, Postgres };

// Every step, oldest first, in the words of the given database.
QList<Migration> migrations(SqlDialect dialect);
