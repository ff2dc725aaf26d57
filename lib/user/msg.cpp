/*
 * User messages: the process-wide message list, catalogue lookup, posting, hints, questions
 * (auto-answered by settings, through a callback or on the console), progress and size texts.
 */
#include "err.h"
#include "msg.h"

#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>

#include "config.h"
#include "dictionary.h"
#include "internal/rounding.h"
#include "location.h"
#include "productState.h"
#include "str.h"
#include "unicodeTypes.h"
#include "userlock.h"
#include "util.h"

extern "C" {
const char *const Msg_OKButtons[] = {"@&!*@*@(button.ok)OK", nullptr};
const char *const Msg_OKCancelButtons[] = {"@&!*@*@(button.ok)OK", "@&!*@*@(button.cancel)Cancel",
                                           nullptr};
}

namespace {

constexpr MX_Rank kMsgLockRank = 0xF0007200;
constexpr size_t kMaxIdLength = 128;
constexpr int kMaxQuestionButtons = 9;
constexpr size_t kConsoleLineSize = 1024;
constexpr int kProgressWidth = 70;
constexpr int kMaxEndsOfInput = 3;

/* Module state; every field is guarded by the module lock. */
struct MsgState {
   char *locale = nullptr;
   Dictionary *catalogue = nullptr;
   MsgList *messages = nullptr;
   MsgCallback callback{};
};

MXUserRecLock *gMsgLockStorage = nullptr;
MsgState gMsgState;

MXUserRecLock *MsgLock()
{
   return MXUser_CreateSingletonRecLock(&gMsgLockStorage, "msgLock", kMsgLockRank);
}

class MsgGuard {
  public:
   MsgGuard() : lock_(MsgLock()) { MXUser_AcquireRecLock(lock_); }
   ~MsgGuard() { MXUser_ReleaseRecLock(lock_); }
   MsgGuard(const MsgGuard &) = delete;
   MsgGuard &operator=(const MsgGuard &) = delete;

  private:
   MXUserRecLock *lock_;
};

const char *MsgTitle(int type)
{
   switch (type) {
      case MSG_INFO:
      case MSG_INFO_TIMEOUT:
         return "Information";
      case MSG_WARNING:
         return "Warning";
      case MSG_ERROR:
         return "Error";
      case MSG_CONFIG_EDITOR:
         return "Configuration editor";
      default:
         return "Home page information";
   }
}

/*
 * Splits a message-id text: the identifier (into id) and the default text after ")". A text
 * without the prefix is its own default, with an empty identifier.
 */
const char *MsgSplitId(const char *idString, char (&id)[kMaxIdLength])
{
   id[0] = '\0';
   if (strncmp(idString, MSG_MAGIC "(", MSG_MAGIC_LEN + 1) != 0) {
      return idString;
   }
   const char *start = idString + MSG_MAGIC_LEN + 1;
   const char *close = strchr(start, ')');
   VERIFY(close != nullptr);
   size_t length = (size_t)(close - start);
   VERIFY(length < kMaxIdLength);
   memcpy(id, start, length);
   id[length] = '\0';
   return close + 1;
}

/* The catalogue's text for id, or the default; the module lock is held. */
const char *MsgLookupLocked(const char *id, const char *defaultText)
{
   if (id[0] != '\0' && gMsgState.catalogue != nullptr) {
      const char *text = Dictionary_LookupString(gMsgState.catalogue, id);
      if (text != nullptr) {
         return text;
      }
   }
   return defaultText;
}

/* The localised text of every message, oldest first, each ending in a line feed. */
std::string MsgLocalizeList(const MsgList *messages)
{
   std::string result;
   // The list is newest first; each line goes in front of the later ones.
   for (const MsgList *m = messages; m != nullptr; m = m->next) {
      std::string line;
      {
         MsgGuard guard;
         char id[kMaxIdLength];
         Str_Strcpy(id, m->id != nullptr && strlen(m->id) < kMaxIdLength ? m->id : "", sizeof id);
         const char *format =
             strcmp(id, "msg.literal") == 0 ? m->format : MsgLookupLocked(id, m->format);
         char *text = MsgFmt_Asprintf(nullptr, format, m->args, m->numArgs);
         if (text == nullptr && format != m->format) {
            text = MsgFmt_Asprintf(nullptr, m->format, m->args, m->numArgs);
         }
         line = text != nullptr ? text : "";
         free(text);
      }
      if (line.empty() || line.back() != '\n') {
         line += '\n';
      }
      result.insert(0, line);
   }
   return result;
}

/* Logs every line of text. */
void MsgLogLines(const std::string &text)
{
   size_t start = 0;
   while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) {
         end = text.size();
      }
      Log("%.*s\n", (int)(end - start), text.c_str() + start);
      start = end + 1;
   }
}

int MsgButtonCount(const char *const *buttons)
{
   int count = 0;
   while (buttons[count] != nullptr) {
      count++;
   }
   return count;
}

/* The identifier of a message-id text, or the text itself. */
std::string MsgIdOf(const char *idString)
{
   char id[kMaxIdLength];
   MsgSplitId(idString, id);
   return id[0] != '\0' ? std::string(id) : std::string(idString);
}

/*
 * Answers from the settings: "answer.<id>" naming one of the buttons, else the default button
 * when "msg.autoAnswer" is set. Returns -1 when the message is not answered.
 */
int MsgIsAnswered(const char *const *buttons, int defaultAnswer, const char *msgId)
{
   char *answer = Config_GetString(nullptr, "answer.%s", msgId);
   if (answer != nullptr) {
      for (int i = 0; buttons[i] != nullptr; i++) {
         char *label = Msg_GetStringButton(buttons[i]);
         bool match = strcmp(label, answer) == 0 || MsgIdOf(buttons[i]) == answer;
         free(label);
         if (match) {
            Log("%s: Using config default '%s' as the answer for '%s'\n", "MsgIsAnswered", answer,
                msgId);
            free(answer);
            return i;
         }
      }
      free(answer);
   }
   if (Config_GetBool(false, "msg.autoAnswer")) {
      char *label = Msg_GetStringButton(buttons[defaultAnswer]);
      Log("%s: Using builtin default '%s' as the answer for '%s'\n", "MsgIsAnswered", label, msgId);
      free(label);
      return defaultAnswer;
   }
   return -1;
}

/* Takes the accumulated list, appending idFmt first when given. */
MsgList *MsgTakeWith(const char *idFmt, va_list args)
{
   MsgGuard guard;
   if (idFmt != nullptr) {
      MsgList_VAppend(&gMsgState.messages, idFmt, args);
   }
   MsgList *messages = gMsgState.messages;
   gMsgState.messages = nullptr;
   return messages;
}

std::string MsgListId(const MsgList *messages)
{
   const char *id = MsgList_GetMsgID(messages);
   return id != nullptr ? id : "";
}

MsgCallback MsgCurrentCallback()
{
   MsgGuard guard;
   return gMsgState.callback;
}

bool MsgPostList(int type, MsgList *messages)
{
   std::string text = MsgLocalizeList(messages);
   std::string msgId = MsgListId(messages);
   const char *title = MsgTitle(type);
   {
      MsgGuard guard;
      Log("%s:%s%s\n", "Msg_Post", title[0] != '\0' ? " " : "", title);
      MsgLogLines(text);
      Log("----------------------------------------\n");
   }
   MsgList_Free(messages);
   MsgCallback cb = MsgCurrentCallback();
   if (cb.postNotify != nullptr) {
      cb.postNotify(cb.context, type, msgId.c_str());
   }
   if (MsgIsAnswered(Msg_OKButtons, 0, msgId.c_str()) >= 0) {
      return true;
   }
   if (type != MSG_ERROR && Config_GetBool(false, "msg.noOK")) {
      if (!Config_GetBool(false, "msg.noOKnoWarning")) {
         Warning("MSG: %s\n", text.c_str());
      }
      return true;
   }
   if (cb.post != nullptr) {
      cb.post(cb.context, type, text.c_str(), msgId.c_str());
   }
   return true;
}

unsigned int MsgAsk(MsgCallback &cb, const char *const *buttons, int numButtons, int defaultAnswer,
                    const std::string &text, const std::string &msgId, const MsgList *messages)
{
   int passed = numButtons < kMaxQuestionButtons ? numButtons : kMaxQuestionButtons;
   char *labels[kMaxQuestionButtons + 1] = {};
   for (int i = 0; i < passed; i++) {
      labels[i] = Msg_GetStringButton(buttons[i]);
   }
   unsigned int reply = (unsigned int)numButtons;
   auto ask = [&](bool list) {
      return list ? cb.questionList(cb.context, labels, passed, defaultAnswer, messages)
                  : cb.question(cb.context, labels, passed, defaultAnswer, text.c_str(),
                                msgId.c_str());
   };
   for (int pass = 0; pass < 2; pass++) {
      bool list = pass == 1;
      if ((list ? (void *)cb.questionList : (void *)cb.question) == nullptr) {
         continue;
      }
      reply = ask(list);
      if (reply >= (unsigned int)numButtons) {
         Log("%s: Invalid reply: %u (max = %u). Reposting question.\n", "MsgQuestion", reply,
             (unsigned int)numButtons - 1);
         reply = ask(list);
      }
   }
   for (int i = 0; i < passed; i++) {
      free(labels[i]);
   }
   return reply;
}

/* Formats the size with n decimals, or none when it is within 0.01 of a whole number. */
std::string MsgFormatNumber(double value, unsigned decimals)
{
   double whole = tesmar::RoundHalfAway(value);
   char format[16];
   char text[64];
   if (fabs(value - whole) < 0.01) {
      Str_Sprintf(format, sizeof format, "%%'.%uf", 0u);
      Str_Sprintf(text, sizeof text, format, whole);
   } else {
      Str_Sprintf(format, sizeof format, "%%'.%uf", decimals);
      Str_Sprintf(text, sizeof text, format, value);
   }
   return text;
}

char *MsgFormatId(const char *idFmt, ...)
{
   char id[kMaxIdLength];
   char *format;
   {
      MsgGuard guard;
      format = Util_SafeStrdup(MsgLookupLocked(id, MsgSplitId(idFmt, id)));
   }
   va_list args;
   va_start(args, idFmt);
   char *result = Str_SafeVasprintf(nullptr, format, args);
   va_end(args);
   free(format);
   return result;
}

/* Console progress: the text cut to the line width, then the percentage. */
int MsgConsoleProgress(void *context, const char *text, int percent, bool cancelButton)
{
   if (percent >= 0) {
      char line[256];
      Str_Snprintf(line, sizeof line, "%.*s (%d%%)", kProgressWidth - 8, text, percent);
      fprintf(stderr, "\r%-*.*s", kProgressWidth, kProgressWidth, line);
   } else {
      fprintf(stderr, "\r%-*.*s", kProgressWidth, kProgressWidth, text);
   }
   fflush(stderr);
   return 1;
}

unsigned int MsgConsoleQuestionCb(void *context, const char *const *buttons, int numButtons,
                                  int defaultAnswer, const char *text, const char *msgID)
{
   return Msg_ConsoleQuestion(stdin, stdout, buttons, numButtons, text);
}

/* Checks a progress format by formatting it; false (and a log line) when malformed. */
bool MsgProgressText(const char *caller, const char *idFmt, va_list args, std::string *text)
{
   MsgFmt_Arg *fmtArgs = nullptr;
   int numArgs = 0;
   char *error = nullptr;
   char id[kMaxIdLength];
   const char *format = MsgSplitId(idFmt, id);
   va_list copy;
   va_copy(copy, args);
   bool ok = MsgFmt_GetArgs(format, copy, &fmtArgs, &numArgs, &error);
   va_end(copy);
   if (!ok) {
      Log("%s error: %s\nformat <%s>\n", caller, error != nullptr ? error : "", idFmt);
      free(error);
      return false;
   }
   std::string localized;
   {
      MsgGuard guard;
      localized = MsgLookupLocked(id, format);
   }
   char *out = MsgFmt_Asprintf(nullptr, localized.c_str(), fmtArgs, numArgs);
   if (out == nullptr) {
      out = MsgFmt_Asprintf(nullptr, format, fmtArgs, numArgs);
   }
   *text = out != nullptr ? out : "";
   free(out);
   MsgFmt_FreeArgs(fmtArgs, numArgs);
   return true;
}

struct LazyProgress {
   bool allowCancel;
   std::string text;
};

}  // namespace

extern "C" {

void Msg_VAppend(const char *idFmt, va_list args)
{
   MsgGuard guard;
   MsgList_VAppend(&gMsgState.messages, idFmt, args);
}

void Msg_Append(const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   Msg_VAppend(idFmt, args);
   va_end(args);
}

void Msg_AppendMsgList(const MsgList *msgs)
{
   MsgList *copy = MsgList_Copy(msgs);
   MsgGuard guard;
   MsgList_AppendList(&gMsgState.messages, copy);
}

MsgList *Msg_TakeList(void)
{
   MsgGuard guard;
   MsgList *messages = gMsgState.messages;
   gMsgState.messages = nullptr;
   return messages;
}

void Msg_Reset(bool log)
{
   MsgList *messages = Msg_TakeList();
   if (log && messages != nullptr) {
      MsgLogLines(MsgLocalizeList(messages));
   }
   MsgList_Free(messages);
}

bool Msg_Post(int type, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList *messages = MsgTakeWith(idFmt, args);
   va_end(args);
   return MsgPostList(type, messages);
}

void Msg_Hint(bool defaultShow, int type, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList *messages = MsgTakeWith(idFmt, args);
   va_end(args);
   std::string text = MsgLocalizeList(messages);
   std::string msgId = MsgListId(messages);
   MsgList_Free(messages);
   if (Config_GetBool(false, "msg.noOK")) {
      Log("%s: Not showing hint %s (%s).\n", "MsgHint", msgId.c_str(), text.c_str());
      return;
   }
   Log("%s: %s\n%s---------------------------------------\n", "MsgHint", msgId.c_str(),
       text.c_str());
   MsgCallback cb = MsgCurrentCallback();
   if (MsgIsAnswered(Msg_OKButtons, 0, msgId.c_str()) >= 0) {
      return;
   }
   if (cb.post != nullptr) {
      cb.post(cb.context, type, text.c_str(), msgId.c_str());
   }
}

unsigned int Msg_Question(const char *const *buttons, int defaultAnswer, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList *messages = MsgTakeWith(idFmt, args);
   va_end(args);
   std::string text = MsgLocalizeList(messages);
   std::string msgId = MsgListId(messages);
   {
      MsgGuard guard;
      Log("%s:%s%s\n", "Msg_Question", "", "");
      MsgLogLines(text);
      Log("----------------------------------------\n");
   }
   int numButtons = MsgButtonCount(buttons);
   unsigned int reply;
   int answered = MsgIsAnswered(buttons, defaultAnswer, msgId.c_str());
   if (answered >= 0) {
      reply = (unsigned int)answered;
   } else {
      MsgCallback cb = MsgCurrentCallback();
      reply = MsgAsk(cb, buttons, numButtons, defaultAnswer, text, msgId, messages);
      if (reply >= (unsigned int)numButtons) {
         Log("%s: Invalid reply: %u (max = %u).  Using default value.\n", "MsgQuestion", reply,
             (unsigned int)numButtons - 1);
         reply = (unsigned int)defaultAnswer;
      }
   }
   Log("%s: %s reply=%d\n", "MsgQuestion", msgId.c_str(), (int)reply);
   MsgList_Free(messages);
   return reply;
}

int Msg_Progress(int percentDone, bool cancelButton, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   std::string text;
   bool ok = MsgProgressText("Msg_Progress", idFmt, args, &text);
   va_end(args);
   if (!ok) {
      return 1;
   }
   MsgCallback cb = MsgCurrentCallback();
   return cb.progress != nullptr ? cb.progress(cb.context, text.c_str(), percentDone, cancelButton)
                                 : 1;
}

void *Msg_LazyProgressStart(bool allowCancel, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   std::string text;
   bool ok = MsgProgressText("Msg_LazyProgressStart", idFmt, args, &text);
   va_end(args);
   if (!ok) {
      return nullptr;
   }
   return new LazyProgress{allowCancel, text};
}

bool Msg_LazyProgress(void *handle, bool allowCancel, int percent, const char *idFmt, ...)
{
   auto *progress = static_cast<LazyProgress *>(handle);
   if (progress == nullptr) {
      return true;
   }
   if (idFmt != nullptr) {
      va_list args;
      va_start(args, idFmt);
      std::string text;
      bool ok = MsgProgressText("Msg_LazyProgress", idFmt, args, &text);
      va_end(args);
      if (ok) {
         progress->text = text;
      }
   }
   MsgCallback cb = MsgCurrentCallback();
   return cb.progress == nullptr ||
          cb.progress(cb.context, progress->text.c_str(), percent, allowCancel) != 0;
}

void Msg_LazyProgressEnd(void *handle)
{
   delete static_cast<LazyProgress *>(handle);
}

char *Msg_GetString(const char *idString)
{
   char id[kMaxIdLength];
   const char *defaultText = MsgSplitId(idString, id);
   MsgGuard guard;
   return Util_SafeStrdup(MsgLookupLocked(id, defaultText));
}

char *Msg_GetStringButton(const char *idString)
{
   char *text = Msg_GetString(idString);
   char *out = text;
   for (const char *in = text; *in != '\0'; in++) {
      if (*in == '_') {
         if (in[1] != '_') {
            continue;
         }
         in++;
      }
      *out++ = *in;
   }
   *out = '\0';
   return text;
}

char *Msg_FormatSizeInBytes(uint64_t size)
{
   static const struct {
      uint64_t unit;
      const char *idFmt;
   } kUnits[] = {
       {1ull << 40, "@&!*@*@(msg.msg.terabyte.abbreviation)%s TB"},
       {1ull << 30, "@&!*@*@(msg.msg.gigabyte.abbreviation)%s GB"},
       {1ull << 20, "@&!*@*@(msg.msg.megabyte.abbreviation)%s MB"},
       {1ull << 10, "@&!*@*@(msg.msg.kilobyte.abbreviation)%s KB"},
   };
   for (const auto &u : kUnits) {
      if (size >= u.unit) {
         std::string number = MsgFormatNumber((double)size / (double)u.unit, 1);
         return MsgFormatId(u.idFmt, number.c_str());
      }
   }
   std::string number = MsgFormatNumber((double)size, 0);
   const char *idFmt = size >= 2   ? "@&!*@*@(msg.msg.byte.twoOrMore)%s bytes"
                       : size == 1 ? "@&!*@*@(msg.msg.byte.one)%s byte"
                                   : "@&!*@*@(msg.msg.byte.zero)%s bytes";
   return MsgFormatId(idFmt, number.c_str());
}

char *Msg_ErrString(int error)
{
   return MsgFormatId("@&!*@*@(msg.msg.systemError)Error %d [%s]", error, Err_Errno2String(error));
}

void Msg_SetCallback(const MsgCallback *callback)
{
   MsgGuard guard;
   gMsgState.callback = callback != nullptr ? *callback : MsgCallback{};
}

void Msg_GetCallback(MsgCallback *callback)
{
   *callback = MsgCurrentCallback();
}

void Msg_UseConsole(void)
{
   MsgGuard guard;
   gMsgState.callback.question = MsgConsoleQuestionCb;
   gMsgState.callback.progress = MsgConsoleProgress;
}

unsigned int Msg_ConsoleQuestion(void *input, void *output, const char *const *buttons,
                                 int numButtons, const char *text)
{
   FILE *in = static_cast<FILE *>(input);
   FILE *out = static_cast<FILE *>(output);
   char *question = Msg_GetString("@&!*@*@(msg.msg.question)Question");
   const char *product = ProductState_GetName();
   fprintf(out, "\n\n%s %s:\n%s", product != nullptr ? product : "", question, text);
   free(question);
   for (int i = 0; i < numButtons; i++) {
      fprintf(out, "%d) %s\n", i, buttons[i]);
   }
   fprintf(out, "\n");
   char *prompt =
       MsgFormatId("@&!*@*@(msg.msg.chooseNumber)Select a number from 0-%d: ", numButtons - 1);
   char line[kConsoleLineSize];
   unsigned int reply = (unsigned int)numButtons;
   int endsOfInput = 0;
   for (;;) {
      fputs(prompt, out);
      fflush(out);
      if (fgets(line, sizeof line, in) == nullptr) {
         fputc('\n', out);
         clearerr(in);
         // An input that stays closed never answers: give up with an invalid reply, which
         // the caller replaces by the default.
         if (++endsOfInput == kMaxEndsOfInput) {
            break;
         }
         continue;
      }
      endsOfInput = 0;
      char *end = nullptr;
      errno = 0;
      unsigned long value = line[0] >= '0' && line[0] <= '9' ? strtoul(line, &end, 10) : 0;
      if (end == nullptr || errno != 0) {
         continue;
      }
      while (*end == ' ' || *end == '\t') {
         end++;
      }
      if (*end == '\n' && end[1] == '\0' && value < (unsigned long)numButtons) {
         reply = (unsigned int)value;
         break;
      }
   }
   free(prompt);
   return reply;
}

}  // extern "C"

namespace {

/* The message directory: the product's, else the library directory's "messages". */
char *MsgDefaultDirectory()
{
   LocationResolver resolve = Location_GetResolver();
   char *dir = resolve != nullptr ? resolve("msgDir") : nullptr;
   if (dir != nullptr) {
      return dir;
   }
   char *libdir = Config_GetString("/dev/null/Non-existing DEFAULT_LIBDIRECTORY", "libdir");
   char *result = libdir != nullptr ? Str_Asprintf(nullptr, "%s/messages", libdir) : nullptr;
   free(libdir);
   return result;
}

/* A locale name from one environment value: "C"/"POSIX" mean English; codeset dropped. */
char *MsgLocaleFromValue(const char *value)
{
   if (value == nullptr || value[0] == '\0') {
      return nullptr;
   }
   std::string locale(value);
   size_t colon = locale.find(':');  // LANGUAGE lists several; the first is preferred
   if (colon != std::string::npos) {
      locale.resize(colon);
   }
   size_t cut = locale.find_first_of(".@");
   if (cut != std::string::npos) {
      locale.resize(cut);
   }
   if (locale.empty()) {
      return nullptr;
   }
   if (locale == "C" || locale == "POSIX") {
      locale = "en";
   }
   return Util_SafeStrdup(locale.c_str());
}

}  // namespace

extern "C" {

char *Msg_GetUserLocale(void)
{
   for (const char *name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
      char *locale = MsgLocaleFromValue(secure_getenv(name));
      if (locale != nullptr) {
         return locale;
      }
   }
   Log("LOCALE: Couldn't get user language.\n");
   return nullptr;
}

char *Msg_GetLocale(void)
{
   MsgGuard guard;
   return gMsgState.locale != nullptr ? Util_SafeStrdup(gMsgState.locale) : nullptr;
}

bool Msg_SetLocaleEx(const char *locale, const char *binaryName, const char *dirName)
{
   const char *hostEncoding = Unicode_EncodingEnumToName(Unicode_GetCurrentEncoding());
   Log("%s: HostLocale=%s UserLocale=%s\n", "Msg_SetLocaleEx",
       hostEncoding != nullptr ? hostEncoding : "", locale != nullptr ? locale : "NULL");
   Dictionary *catalogue = nullptr;
   if (locale != nullptr) {
      char *path = nullptr;
      if (dirName == nullptr) {
         char *dir = MsgDefaultDirectory();
         if (dir != nullptr) {
            path =
                Str_Asprintf(nullptr, "%s%s%s%s%s.%s", dir, "/", locale, "/", binaryName, "tmsg");
         }
         free(dir);
      } else {
         path = Str_Asprintf(nullptr, "%s%smessages%s%s%s%s.%s", dirName, "/", "/", locale, "/",
                             binaryName, "tmsg");
      }
      if (path == nullptr) {
         Warning("Cannot determine message file path for locale \"%s\".\n", locale);
         return false;
      }
      catalogue = Dictionary_Create();
      MsgList *errors = nullptr;
      bool ok = DictionaryLoad(catalogue, path, true, STRING_ENCODING_UTF8, &errors);
      MsgList_Free(errors);
      if (!ok) {
         if (strncmp(locale, "en", 2) != 0) {
            Warning("Cannot load message dictionary \"%s\".\n", path);
         }
         Dictionary_Free(catalogue);
         free(path);
         return false;
      }
      free(path);
   }
   Dictionary *old;
   {
      MsgGuard guard;
      old = gMsgState.catalogue;
      gMsgState.catalogue = catalogue;
      free(gMsgState.locale);
      gMsgState.locale = locale != nullptr ? Util_SafeStrdup(locale) : nullptr;
   }
   Dictionary_Free(old);
   return true;
}

}  // extern "C"
