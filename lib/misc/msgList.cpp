/*
 * Message lists: captured messages chained newest first.
 */
#include "msgList.h"

#include <stdlib.h>
#include <string.h>

#include "log.h"
#include "str.h"
#include "util.h"

namespace {

constexpr char kLiteralId[] = "msg.literal";

/* Splits "@&!*@*@(id)format"; false for a text without that form. */
bool SplitId(const char *idFmt, const char **id, size_t *idLength, const char **format)
{
   if (strncmp(idFmt, MSG_MAGIC "(", MSG_MAGIC_LEN + 1) != 0) {
      return false;
   }
   const char *start = idFmt + MSG_MAGIC_LEN + 1;
   const char *close = strchr(start, ')');
   if (close == nullptr) {
      return false;
   }
   *id = start;
   *idLength = (size_t)(close - start);
   *format = close + 1;
   return true;
}

MsgList *NewNode(char *id, char *format, MsgFmt_Arg *args, int numArgs)
{
   auto *node = static_cast<MsgList *>(Util_SafeMalloc(sizeof(MsgList)));
   node->next = nullptr;
   node->id = id;
   node->format = format;
   node->args = args;
   node->numArgs = numArgs;
   return node;
}

/* A node for the literal text: the format "%s" with the text as its one argument. */
MsgList *LiteralNode(const char *text)
{
   auto *args = static_cast<MsgFmt_Arg *>(Util_SafeCalloc(1, sizeof(MsgFmt_Arg)));
   args[0].type = MSGFMT_ARG_STRING8;
   args[0].v.string8 = Util_SafeStrdup(text);
   return NewNode(Util_SafeStrdup(kLiteralId), Util_SafeStrdup("%s"), args, 1);
}

MsgList *CaptureNode(const char *idFmt, va_list va)
{
   const char *id;
   size_t idLength;
   const char *format;
   if (!SplitId(idFmt, &id, &idLength, &format)) {
      return LiteralNode(idFmt);
   }
   MsgFmt_Arg *args = nullptr;
   int numArgs = 0;
   char *error = nullptr;
   if (!MsgFmt_GetArgs(format, va, &args, &numArgs, &error)) {
      Panic("%s error: %s\nformat <%s>\n", "MsgList_VAppend", error, idFmt);
   }
   return NewNode(Util_SafeStrndup(id, idLength), Util_SafeStrdup(format), args, numArgs);
}

void FreeNode(MsgList *node)
{
   free(node->id);
   free(node->format);
   MsgFmt_FreeArgs(node->args, node->numArgs);
   free(node);
}

/* A node's message; an argument the format cannot take gives an empty text. */
char *FormatNode(const MsgList *node)
{
   char *text = MsgFmt_Asprintf(nullptr, node->format, node->args, node->numArgs);
   return text != nullptr ? text : Util_SafeStrdup("");
}

const char *LineEnd(const char *text)
{
   size_t length = strlen(text);
   return length > 0 && text[length - 1] == '\n' ? "" : "\n";
}

}  // namespace

extern "C" {

void MsgList_VAppend(MsgList **list, const char *idFmt, va_list args)
{
   if (list == nullptr) {
      return;
   }
   MsgList *node = CaptureNode(idFmt, args);
   node->next = *list;
   *list = node;
}

void MsgList_Append(MsgList **list, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList_VAppend(list, idFmt, args);
   va_end(args);
}

MsgList *MsgList_VCreate(const char *idFmt, va_list args)
{
   MsgList *list = nullptr;
   MsgList_VAppend(&list, idFmt, args);
   return list;
}

MsgList *MsgList_Create(const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList *list = MsgList_VCreate(idFmt, args);
   va_end(args);
   return list;
}

void MsgList_AppendList(MsgList **list, MsgList *messages)
{
   if (list == nullptr) {
      MsgList_Free(messages);
      return;
   }
   if (messages == nullptr) {
      return;
   }
   MsgList *tail = messages;
   while (tail->next != nullptr) {
      tail = tail->next;
   }
   tail->next = *list;
   *list = messages;
}

MsgList *MsgList_Copy(const MsgList *messages)
{
   MsgList *head = nullptr;
   MsgList **link = &head;
   for (const MsgList *m = messages; m != nullptr; m = m->next) {
      MsgList *copy = NewNode(Util_SafeStrdup(m->id), Util_SafeStrdup(m->format),
                              MsgFmt_CopyArgs(m->args, m->numArgs), m->numArgs);
      *link = copy;
      link = &copy->next;
   }
   return head;
}

void MsgList_Free(MsgList *messages)
{
   while (messages != nullptr) {
      MsgList *next = messages->next;
      FreeNode(messages);
      messages = next;
   }
}

const char *MsgList_GetMsgID(const MsgList *messages)
{
   if (messages == nullptr) {
      return nullptr;
   }
   while (messages->next != nullptr) {
      messages = messages->next;
   }
   return messages->id;
}

char *MsgList_ToString(const MsgList *messages)
{
   if (messages == nullptr) {
      return nullptr;
   }
   char *result = Util_SafeStrdup("");
   for (const MsgList *m = messages; m != nullptr; m = m->next) {
      char *text = FormatNode(m);
      char *joined = Str_SafeAsprintf(nullptr, "%s%s%s", result, text, LineEnd(text));
      free(text);
      free(result);
      result = joined;
   }
   return result;
}

void MsgList_Log(const MsgList *messages)
{
   for (const MsgList *m = messages; m != nullptr; m = m->next) {
      char *text = FormatNode(m);
      Log("[%s] %s%s", m->id, text, LineEnd(text));
      free(text);
   }
}

}  // extern "C"
