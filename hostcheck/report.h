// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QList>
#include <QtCore/QString>

namespace hostcheck {

//! What has become of one check.
struct Verdict
{
    enum Result { Ok, Failed, Skipped };

    QString name;
    Result result = Ok;
    QString detail; // one line, or empty
    QString more; // lines for the reader, a hex dump say; or empty
    double seconds = 0;
};

/*!
    Prints one line a check, and keeps the verdicts for the end.

    Thread: one at a time.
    Owner:  main().
*/
class Report
{
public:
    // title: of the suite in the JUnit file.
    explicit Report(const QString &title) : suite(title) {}

    // Prints it. When all are known, finish() prints how many there were.
    void add(const Verdict &verdict);
    void finish() const;

    bool isEmpty() const { return verdicts.isEmpty(); }
    bool hasFailures() const { return count(Verdict::Failed) > 0; }
    // False if the file cannot be written.
    bool writeJunit(const QString &file) const;

private:
    int count(Verdict::Result result) const;

    QString suite;
    QList<Verdict> verdicts;
};

} // namespace hostcheck
