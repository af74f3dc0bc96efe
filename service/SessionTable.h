#pragma once

/*
 * The session state machine of the request service as one table: for each
 * operation just handled, the operations allowed next. The dispatcher reads
 * it after every handled request, and the protocol tests walk the server
 * through the same rows, so a transition is written down in one place.
 */

#include "service/Protocol.h"

#include <QtGlobal>

#include <initializer_list>

namespace SessionTable {

/** A set of operation codes, one bit per code (all codes are below 32). */
using OpSet = quint32;

constexpr OpSet ops(std::initializer_list<quint32> codes)
{
    OpSet set = 0;
    for (const quint32 code : codes)
        set |= OpSet(1) << code;
    return set;
}

/** True when @p set holds @p operation; codes of 32 and above never do. */
constexpr bool allows(OpSet set, quint64 operation)
{
    return operation < 32 && ((set >> operation) & 1u) != 0;
}

/** Rows whose next set does not depend on the user's answer. */
constexpr int AnyAnswer = -1000;

struct Transition
{
    quint32 operation; // the operation just handled
    int answer; // the message answer it depends on (REQ_PIN_Retry), or AnyAnswer
    OpSet next; // the operations allowed after it
};

/** A new connection, and the state after REQ_EndSession. */
constexpr OpSet Start = ops({REQ_BeginSession});

/**
 * First matching row wins: the answer-specific rows of REQ_PIN_Retry come
 * before its AnyAnswer row. Codes 8 and 12 can be allowed but have no
 * handler (and so no row): they end the connection without a response.
 */
constexpr Transition Transitions[] = {
        {REQ_BeginSession, AnyAnswer,
         ops({REQ_PIN_Show, REQ_Waiting_Show, REQ_List_Show, REQ_Reserved_12, REQ_MessageBox,
              REQ_EndSession})},
        {REQ_EndSession, AnyAnswer, Start},
        {REQ_PIN_Show, AnyAnswer, ops({REQ_PIN_GetPIN, REQ_Waiting_Show})},
        {REQ_PIN_GetPIN, AnyAnswer,
         ops({REQ_PIN_GetPIN, REQ_PIN_Retry, REQ_PIN_Finish, REQ_Waiting_Show, REQ_EndSession})},
        {REQ_PIN_Retry, 1, ops({REQ_PIN_GetPIN})},
        {REQ_PIN_Retry, 0, ops({REQ_EndSession})},
        {REQ_PIN_Retry, AnyAnswer, ops({REQ_PIN_Retry})},
        {REQ_PIN_Finish, AnyAnswer, ops({REQ_MessageBox, REQ_EndSession})},
        {REQ_Waiting_Show, AnyAnswer, ops({REQ_Reserved_8, REQ_Waiting_Finish})},
        {REQ_Waiting_Finish, AnyAnswer, ops({REQ_PIN_Retry, REQ_PIN_Finish, REQ_EndSession})},
        {REQ_List_Show, AnyAnswer, ops({REQ_List_GetSel})},
        {REQ_List_GetSel, AnyAnswer, ops({REQ_List_GetSel, REQ_EndSession})},
        {REQ_MessageBox, AnyAnswer, ops({REQ_EndSession, REQ_MessageBox})},
};

/**
 * The operations allowed after @p operation was handled with @p answer; an
 * empty set for an operation without a row.
 */
constexpr OpSet next(quint32 operation, int answer = AnyAnswer)
{
    for (const Transition &row : Transitions) {
        if (row.operation == operation && (row.answer == AnyAnswer || row.answer == answer))
            return row.next;
    }
    return 0;
}

} // namespace SessionTable
