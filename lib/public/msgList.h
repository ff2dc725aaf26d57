/*
 * Message lists: a chain of captured messages (identifier, format, arguments) that a routine
 * collects to explain a failure, newest first, for a caller to show or log.
 */
#ifndef TESMAR_MSGLIST_H
#define TESMAR_MSGLIST_H

#include <stdarg.h>

#include "log.h"
#include "msgfmt.h"

#ifdef __cplusplus
extern "C" {
#endif

/* "@&!*@*@(" + identifier + ")" introduces the format proper. */
#define MSG_MAGIC "@&!*@*@"
#define MSG_MAGIC_LEN 7

typedef struct MsgList MsgList;
struct MsgList {
   MsgList *next;
   char *id;
   char *format;
   MsgFmt_Arg *args;
   int numArgs;
};

/*
 * Puts a new message at the head of *list (nothing happens when list is NULL). A text without
 * an identifier is stored as the argument of "%s" with the identifier "msg.literal". A format
 * whose arguments cannot be captured is a programming error and panics.
 */
void MsgList_VAppend(MsgList **list, const char *idFmt, va_list args);
void MsgList_Append(MsgList **list, const char *idFmt, ...) TESMAR_PRINTF(2, 3);
MsgList *MsgList_VCreate(const char *idFmt, va_list args);
MsgList *MsgList_Create(const char *idFmt, ...) TESMAR_PRINTF(1, 2);

/* Moves all of messages in front of *list's head, in their order; frees them without a list. */
void MsgList_AppendList(MsgList **list, MsgList *messages);
MsgList *MsgList_Copy(const MsgList *messages);
void MsgList_Free(MsgList *messages);

/* The identifier of the earliest message (the last node); NULL for an empty list. */
const char *MsgList_GetMsgID(const MsgList *messages);

/* Every message formatted, each ending in a line feed, newest first; NULL for an empty list. */
char *MsgList_ToString(const MsgList *messages);

/* Logs each message as "[identifier] message". */
void MsgList_Log(const MsgList *messages);

#ifdef __cplusplus
}
#endif

#endif
