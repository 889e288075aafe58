// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "comparison.h"
#include "lateness.h"
#include "metaobjects.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QRandomGenerator>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace {

constexpr int PerEpisode = 350;
constexpr int ShownInFull = 10;

QStringList metaObjectDifferences()
{
    const auto stock = stockSide().library.create({});
    const auto library = librarySide().library.create({});
    const QStringList expected = methodsOf(*stock);
    const QStringList actual = methodsOf(*library);
    QStringList differences;
    for (qsizetype i = 0; i < qMax(expected.size(), actual.size()); ++i) {
        if (expected.value(i) != actual.value(i))
            differences += QStringLiteral("method %1: expected \"%2\", is \"%3\"")
                                   .arg(i)
                                   .arg(expected.value(i), actual.value(i));
    }
    return differences;
}

// The plan of one episode. connection: keeps only this one; negative: keeps all.
EpisodePlan planOf(quint32 seed, int episode, int connections, int connection)
{
    EpisodePlan plan = EpisodePlan::random(seed, episode, connections);
    if (connection >= 0)
        plan.scripts = {plan.scripts.value(connection)};
    return plan;
}

int report(const Comparison &comparison, const QStringList &metaObjects)
{
    const QStringList &differences = comparison.differences();
    for (qsizetype i = 0; i < differences.size(); ++i) {
        const QString text =
                i < ShownInFull ? differences[i] : differences[i].section(QLatin1Char('\n'), 0, 1);
        std::printf("DIFFERENCE %lld: %s\n\n", static_cast<long long>(i + 1), qPrintable(text));
    }
    for (const QString &difference : metaObjects)
        std::printf("META-OBJECT: %s\n", qPrintable(difference));
    const QStringList later = comparison.latenessFindings();
    comparison.print(stdout);
    for (const QString &group : later)
        std::printf("LATENESS: %s\n", qPrintable(group));
    const bool same = differences.isEmpty() && metaObjects.isEmpty() && later.isEmpty();
    std::printf("%lld differences, %lld in the meta-object, %lld in the lateness: %s\n",
                static_cast<long long>(differences.size()),
                static_cast<long long>(metaObjects.size()), static_cast<long long>(later.size()),
                same ? "the same" : "NOT THE SAME");
    return same ? 0 : 1;
}

/*!
    How long bytes take from their device to the host.

    A wait begins when the device has begun to send, but not before the connection has a client. The
    time for which the machine gave the connection's threads no CPU does not count.
*/
class PromptFigures
{
public:
    void add(const EpisodePlan &plan, int number)
    {
        const EpisodeResult result = playEpisode(librarySide(), plan);
        for (std::size_t i = 0; i < result.traces.size(); ++i) {
            const Script &script = plan.scripts.at(qsizetype(i));
            const Trace &trace = result.traces[i];
            const std::vector<double> ms = Lateness::latenessOf(script, trace);
            for (std::size_t byte = 0; byte < ms.size(); ++byte) {
                const auto message = qsizetype(byte / 2);
                if (ms[byte] < 0) {
                    ++neverOffered;
                    continue;
                }
                const std::chrono::duration<double, std::milli> early =
                        trace.created - trace.messages.at(message);
                const double wait = ms[byte] - std::max(early.count(), 0.0)
                        - static_cast<double>(trace.heldUp.count());
                const bool isLarge = script.messages.at(message).bytes > LargeBytes;
                waits[isLarge].push_back(wait);
                if (wait > LongestMs)
                    std::printf("episode %d, connection %zu, message %lld: %.1f ms, held up %lld\n",
                                number, i, static_cast<long long>(message), wait,
                                static_cast<long long>(trace.heldUp.count()));
            }
        }
    }
    void print()
    {
        for (std::size_t large = 0; large < waits.size(); ++large) {
            std::vector<double> &ms = waits[large];
            std::sort(ms.begin(), ms.end());
            const auto share = [&ms](double part) {
                return ms.empty() ? 0 : ms[static_cast<std::size_t>(part * double(ms.size() - 1))];
            };
            std::printf(
                    "%s messages: %zu first and last bytes; median %.1f ms, 99 %% %.1f, 99.9 %% "
                    "%.1f, longest %.1f\n",
                    large != 0 ? "large" : "small", ms.size(), share(0.5), share(0.99),
                    share(0.999), share(1));
        }
        std::printf(
                "%lld bytes were never offered: the host has discarded more than it knew of, or "
                "the end came first\n",
                static_cast<long long>(neverOffered));
    }

private:
    static constexpr qsizetype LargeBytes = 100000;
    static constexpr double LongestMs = 220; // 200 of the interval, and 20

    std::array<std::vector<double>, 2> waits; // small, large
    qint64 neverOffered = 0;
};

} // namespace

/*!
    Plays the same random scripts on the plain plugin and on the library, and prints what differs.
    Exits with 1 if anything does.
*/
int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const auto option = [&](const char *name, const char *text, const QString &value) {
        const QCommandLineOption result(QLatin1String(name), QLatin1String(text),
                                        QLatin1String("number"), value);
        parser.addOption(result);
        return result;
    };
    const auto connections =
            option("connections", "to play at least (10000).", QStringLiteral("10000"));
    const auto seedOption = option("seed", "of the scripts (another one each time).",
                                   QString::number(QRandomGenerator::global()->generate()));
    const auto size =
            option("size", "of an episode, in connections (350).", QString::number(PerEpisode));
    const auto episode = option("episode", "to play alone.", QStringLiteral("-1"));
    const auto connection =
            option("connection", "of that episode to play alone.", QStringLiteral("-1"));
    const QCommandLineOption library(QStringLiteral("library"),
                                     QStringLiteral("to compare, instead of this build's."),
                                     QStringLiteral("file"), QStringLiteral(PLUGIN_FILE));
    parser.addOption(library);
    const QCommandLineOption engine(QStringLiteral("engine"),
                                    QStringLiteral("of the library's TLS: qt or own."),
                                    QStringLiteral("name"));
    parser.addOption(engine);
    const QCommandLineOption prompt(
            QStringLiteral("prompt"),
            QStringLiteral("Play on the library alone, with \"prompt\", and print how long bytes "
                           "take from their device to the host."));
    parser.addOption(prompt);
    parser.addHelpOption();
    parser.process(application);
    librarySide(parser.value(library)).engine = parser.value(engine);

    const quint32 seed = parser.value(seedOption).toUInt();
    const int each = qMax(1, parser.value(size).toInt());
    const int alone = parser.value(episode).toInt();
    const int first = qMax(0, alone);
    const int last = alone >= 0 ? alone : (parser.value(connections).toInt() - 1) / each;
    QString repeat = QStringLiteral("%1 --seed %2 --size %3")
                             .arg(QString::fromLocal8Bit(argv[0]))
                             .arg(seed)
                             .arg(each);
    if (parser.isSet(engine))
        repeat += QStringLiteral(" --engine %1").arg(parser.value(engine));
    std::fprintf(stderr, "%s\n", qPrintable(repeat));

    QElapsedTimer clock;
    clock.start();
    if (parser.isSet(prompt)) {
        PromptFigures figures;
        for (int i = first; i <= last; ++i) {
            EpisodePlan plan = planOf(seed, i, each, parser.value(connection).toInt());
            plan.prompt = true;
            figures.add(plan, i);
        }
        figures.print();
        return 0;
    }
    Comparison comparison(repeat, true);
    for (int i = first; i <= last; ++i) {
        const EpisodePlan plan = planOf(seed, i, each, parser.value(connection).toInt());
        comparison.play(plan, i);
        std::fprintf(stderr, "%6.1f s  episode %d of %d: %s, %s; %lld differences so far\n",
                     static_cast<double>(clock.elapsed()) / 1000, i, last,
                     plan.scripts.first().spaced ? "spaced" : "hasty", qPrintable(plan.toString()),
                     static_cast<long long>(comparison.differences().size()));
    }
    return report(comparison, metaObjectDifferences());
}
