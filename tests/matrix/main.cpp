// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "report.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>

#include <cstdio>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

// A stop or a destruction ends its plugin, so each repeat needs a new one. The repeats of all other
// endings run at the same time.
void play(RoundPlan plan, int repeats, Report &report)
{
    plan.repeats = isCutShort(plan.ending) ? 1 : repeats;
    for (int n = 0; n < repeats / plan.repeats; ++n)
        report.add(playRound(plan));
}

} // namespace

/*!
    Plays the whole no-loss matrix against the built library and writes it to standard output.
    Exits with 1 if a byte is lost, out of order, or given twice to an exact host, or if an end is
    not reported exactly once.
*/
int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QCommandLineOption repeats(text("repeats"), text("Devices a cell. Default: 1."),
                                     text("n"), text("1"));
    const QCommandLineOption ending(
            text("ending"), text("Only the endings whose name contains this text."), text("text"));
    const QCommandLineOption transport(
            text("transport"), text("Only the transports whose name contains it."), text("text"));
    const QCommandLineOption engine(text("engine"), text("TLS only with this engine."),
                                    text("name"));
    const QCommandLineOption full(text("cells"), text("One row a cell, instead of sums."));
    QCommandLineParser parser;
    parser.setApplicationDescription(text("Plays the no-loss matrix; see docs/NO_LOSS.md."));
    parser.addHelpOption();
    parser.addOptions({repeats, ending, transport, engine, full});
    parser.process(application);

    Report report;
    QElapsedTimer clock;
    clock.start();
    for (const auto &e : Endings) {
        for (const auto &t : Transports) {
            if (!exists(e.value, t.value) || !text(e.name).contains(parser.value(ending))
                || !text(t.name).contains(parser.value(transport)))
                continue;
            RoundPlan plan;
            plan.ending = e.value;
            plan.transport = t.value;
            for (const QString &name : enginesOf(t.value)) {
                if (parser.isSet(engine) && !name.isEmpty() && name != parser.value(engine))
                    continue;
                plan.engine = name;
                for (const auto &keys : KeySets) {
                    plan.keys = keys.value;
                    play(plan, qMax(1, parser.value(repeats).toInt()), report);
                    std::fprintf(stderr, "%6.1f s  %s, %s %s, %s: %s\n",
                                 static_cast<double>(clock.elapsed()) / 1000, e.name, t.name,
                                 qPrintable(name), keys.name,
                                 report.isClean() ? "clean" : "NOT CLEAN");
                }
            }
        }
    }

    QTextStream out(stdout);
    if (parser.isSet(full))
        report.writeCells(out);
    else
        report.write(out);
    return report.isClean() ? 0 : 1;
}
