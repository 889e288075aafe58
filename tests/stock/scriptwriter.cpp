// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "scriptwriter.h"

#include <algorithm>

namespace {

constexpr int UsPerMs = 1000;
constexpr int LargestMessage = 5000;
constexpr qsizetype ReadByTls = 4096; // at once: larger messages take several reads
constexpr int LongestSpacedMs = 7000;
constexpr int LongestHastyMs = 4000;
constexpr int SpreadStartMs = 250; // of scripts that the plugin ends together
constexpr int Attempts = 2000;

bool isPluginsDoing(Ending ending)
{
    return ending == Ending::Stop || ending == Ending::Destroy;
}

// Sizes around each limit at which something changes, and sizes between them.
qsizetype messageSize(Dice &dice)
{
    switch (dice.below(5)) {
    case 0:
        return dice.between(1, 22);
    case 1:
        return dice.between(15, 90);
    case 2:
        return dice.between(70, 1100);
    default:
        return dice.between(900, LargestMessage);
    }
}

int spacedPauseMs(Dice &dice, bool brief)
{
    const int kind = dice.below(brief ? 3 : 5);
    if (kind <= 1)
        return dice.between(60, 140);
    if (kind == 2)
        return dice.between(260, 500);
    return kind == 3 ? dice.between(400, 1400) : dice.between(1700, 2700);
}

Answer spacedAnswer(Dice &dice, bool brief)
{
    Answer answer;
    constexpr int Kinds = static_cast<int>(Reply::None) + 1;
    answer.reply = static_cast<Reply>(dice.below(Kinds));
    answer.amount = dice.between(1, 999);
    if (dice.inPercent(40))
        answer.lateMs = spacedPauseMs(dice, brief);
    return answer;
}

Script spacedAttempt(Dice &dice, Ending ending, bool tls)
{
    const bool brief = isPluginsDoing(ending);
    Script script;
    script.otherThread = dice.inPercent(25);
    script.startMs = dice.below(brief ? SpreadStartMs : 2000);
    script.ending = ending;
    script.messages.resize(dice.between(1, 6));
    int whole = 0;
    for (Message &message : script.messages) {
        message.bytes = messageSize(dice);
        if (tls)
            message.bytes = std::min(message.bytes, ReadByTls);
        message.pauseUs = spacedPauseMs(dice, brief) * UsPerMs;
    }
    script.messages.first().pauseUs = 0;
    for (const Message &message : script.messages)
        whole += static_cast<int>(message.pauseUs / UsPerMs);
    script.endPauseUs = spacedPauseMs(dice, false) * UsPerMs;
    if (brief) {
        script.endPauseUs = (ScriptWriter::PluginEndMs - script.startMs - whole) * UsPerMs;
    } else if (ending != Ending::IdleTimeout
               && dice.inPercent(30)) { // the host forgets about it, until it is kicked
        script.further.reply = Reply::None;
        script.endPauseUs = dice.between(2300, 4300) * UsPerMs;
    }
    const int answers = dice.below(7);
    for (int i = 0; i < answers; ++i)
        script.answers.append(spacedAnswer(dice, brief));
    return script;
}

// The last offer comes with the end of the connection. An answer from within its slot would race
// with the end, so this answer comes later.
void answerLastOfferLate(Script &script, const CourseNames &names, Dice &dice)
{
    const Course course(script, names, Course::plannedTimes(script));
    if (course.lastOffer < 0 || script.ending == Ending::Stop)
        return;
    while (script.answers.size() <= course.lastOffer)
        script.answers.append(script.further);
    Answer &last = script.answers[course.lastOffer];
    if (last.reply != Reply::None && last.lateMs == 0)
        last.lateMs = dice.between(60, 300);
}

qint64 hastyPauseUs(Dice &dice)
{
    const int kind = dice.below(20);
    if (kind < 7)
        return dice.between(10, 120);
    if (kind < 13)
        return dice.between(700, 1500);
    return (kind < 18 ? dice.between(150, 260) : dice.between(1800, 2200)) * UsPerMs;
}

// Some answers consume nothing. An answer that is given again and again must consume something.
Answer hastyAnswer(Dice &dice, bool once)
{
    Answer answer;
    const int kind = dice.below(once ? 20 : 17);
    answer.reply = kind < 13 ? Reply::Messages : Reply::OneMessage;
    if (kind >= 17)
        answer.reply = kind == 17 ? Reply::Zero : kind == 18 ? Reply::Negative : Reply::None;
    answer.amount = dice.between(1, 999);
    if (dice.inPercent(25))
        answer.lateMs = dice.between(1, 400);
    return answer;
}

} // namespace

Script ScriptWriter::spaced(quint32 seed, Ending ending, const CourseNames &names)
{
    Dice dice(seed);
    Script script;
    for (int i = 0; i < Attempts; ++i) {
        script = spacedAttempt(dice, ending, names.tls);
        script.seed = seed;
        answerLastOfferLate(script, names, dice);
        const CourseTimes times = Course::plannedTimes(script);
        if (times.end <= LongestSpacedMs && Course(script, names, times).slack >= PlannedSlackMs)
            return script;
    }
    qFatal("no script keeps its distances, seed %u", seed);
    return script;
}

Script ScriptWriter::hasty(quint32 seed, Ending ending)
{
    Dice dice(seed);
    Script script;
    script.seed = seed;
    script.spaced = false;
    // An early reset would end the connection before the server has seen it.
    script.eager = dice.inPercent(30) && ending != Ending::Reset;
    script.otherThread = dice.inPercent(25);
    script.ending = ending;
    script.startMs = dice.below(isPluginsDoing(ending) ? SpreadStartMs : 1500);
    const bool large = dice.inPercent(15);
    const int count = large ? dice.between(2, 5) : dice.between(2, 12);
    // Two messages come together, long after the last offer.
    const bool pairs = dice.inPercent(40);
    const int longestMs = isPluginsDoing(ending) ? PluginEndMs : LongestHastyMs;
    qint64 whole = 0;
    for (int i = 0; i < count; ++i) {
        Message message{hastyPauseUs(dice), messageSize(dice)};
        if (pairs)
            message.pauseUs = i % 2 == 0 ? dice.between(210, 400) * UsPerMs : dice.between(10, 120);
        if (large && dice.inPercent(50))
            message.bytes = dice.between(300'000, 2'000'000);
        if (i == 0 && (script.eager || isPluginsDoing(ending)))
            message.pauseUs = 0;
        whole += message.pauseUs;
        if (whole < longestMs * UsPerMs)
            script.messages.append(message);
    }
    script.endPauseUs = hastyPauseUs(dice);
    script.further = hastyAnswer(dice, false);
    const int answers = dice.inPercent(50) ? 0 : dice.between(1, 6);
    for (int i = 0; i < answers; ++i)
        script.answers.append(hastyAnswer(dice, true));
    return script;
}
