/*
 * User messages: message-id texts looked up in a per-locale catalogue, collected in a
 * process-wide list and posted, and questions answered by settings, a callback or the console.
 *
 * A message-id text is "@&!*@*@(" + identifier + ")" + the English default text.
 */
#ifndef TESMAR_MSG_H
#define TESMAR_MSG_H

#include <stdbool.h>
#include <stdint.h>

#include "log.h"
#include "msgList.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Message types (the title logged with a posted message). */
#define MSG_INFO 0
#define MSG_INFO_TIMEOUT 1
#define MSG_WARNING 2
#define MSG_ERROR 3
#define MSG_CONFIG_EDITOR 4
#define MSG_WEB_LINK_GET_LICENSE_ERROR 5
#define MSG_WEB_LINK_EXTEND_LICENSE_ERROR 6
#define MSG_WEB_LINK_EXTEND_LICENSE_INFO 7
#define MSG_WEB_LINK_HOME_PAGE_INFO 8

/* Button lists: message-id texts, ended by NULL. */
extern const char *const Msg_OKButtons[];
extern const char *const Msg_OKCancelButtons[];

/* Appends a message to the process-wide list (formatting through the message lists). */
void Msg_Append(const char *idFmt, ...) TESMAR_PRINTF(1, 2);
void Msg_VAppend(const char *idFmt, va_list args);
/* Appends a copy of every message of msgs. */
void Msg_AppendMsgList(const MsgList *msgs);
/* Takes the accumulated list out of the module (the caller frees it); NULL when empty. */
MsgList *Msg_TakeList(void);

/* Appends idFmt (may be NULL) and posts the list as one message of the given type. */
bool Msg_Post(int type, const char *idFmt, ...);
void Msg_Hint(bool defaultShow, int type, const char *idFmt, ...);
/* Asks a question; returns the chosen button index. */
unsigned int Msg_Question(const char *const *buttons, int defaultAnswer, const char *idFmt, ...);
/* Shows a progress percentage (0-100; -1 for none); false when the user cancelled. */
int Msg_Progress(int percentDone, bool cancelButton, const char *idFmt, ...);
void *Msg_LazyProgressStart(bool allowCancel, const char *idFmt, ...);
bool Msg_LazyProgress(void *handle, bool allowCancel, int percent, const char *idFmt, ...);
void Msg_LazyProgressEnd(void *handle);

/* Drops the accumulated list, logging it first when log is true. */
void Msg_Reset(bool log);

/* Selects the catalogue for locale (NULL drops it); dirName NULL means the product's. */
bool Msg_SetLocaleEx(const char *locale, const char *binaryName, const char *dirName);
/* The current locale (owned copy) or NULL. */
char *Msg_GetLocale(void);
/* A locale name from the user's environment ("en" for C/POSIX); NULL when none. */
char *Msg_GetUserLocale(void);

/* The localised text of a message-id text (owned copy). */
char *Msg_GetString(const char *idString);
/* As Msg_GetString, with mnemonic underscores removed ("__" keeps one). */
char *Msg_GetStringButton(const char *idString);
/* A localised size ("1.5 KB", "2 GB", "1 byte"); owned. */
char *Msg_FormatSizeInBytes(uint64_t size);
/* "Error %d [%s]" for the error number, localised; owned. */
char *Msg_ErrString(int error);

/* The user-interface callbacks; any may be NULL. */
typedef struct MsgCallback {
   void (*postNotify)(void *context, int type, const char *msgID);
   void (*post)(void *context, int type, const char *text, const char *msgID);
   /* Returns the chosen index; buttons are localised texts. */
   unsigned int (*question)(void *context, const char *const *buttons, int numButtons,
                            int defaultAnswer, const char *text, const char *msgID);
   unsigned int (*questionList)(void *context, const char *const *buttons, int numButtons,
                                int defaultAnswer, const MsgList *messages);
   int (*progress)(void *context, const char *text, int percent, bool cancelButton);
   void *context;
} MsgCallback;

void Msg_SetCallback(const MsgCallback *callback);
void Msg_GetCallback(MsgCallback *callback);
/* Installs the console implementation of the question and progress callbacks. */
void Msg_UseConsole(void);
/* The console question on the given streams (FILE *); returns the chosen index. */
unsigned int Msg_ConsoleQuestion(void *input, void *output, const char *const *buttons,
                                 int numButtons, const char *text);

#ifdef __cplusplus
}
#endif

#endif
