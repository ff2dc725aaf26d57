/*
 * Text of error numbers. The texts are cached for the life of the process, so the pointers
 * returned stay valid and need no freeing; errno is never changed by these calls.
 */
#ifndef TESMAR_ERR_H
#define TESMAR_ERR_H

#ifdef __cplusplus
extern "C" {
#endif

typedef int Err_Number;

/* The system's text for errorNumber ("Unknown error %d" for codes it does not know). */
const char *Err_Errno2String(Err_Number errorNumber);
/* The text of the current errno. */
const char *Err_ErrString(void);
/* The number whose text was handed out by Err_Errno2String as text, or -1. */
Err_Number Err_String2Errno(const char *text);

#ifdef __cplusplus
}
#endif

#endif
