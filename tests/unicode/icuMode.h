/*
 * Switches the codeset module between ICU and its built-in converters for a test: ICU is used
 * when CodeSet_Init finds the data file, so a scratch directory with a file of that name turns
 * it on and a missing directory turns it off.
 */
#ifndef TESMAR_TESTS_ICU_MODE_H
#define TESMAR_TESTS_ICU_MODE_H

#include <unicode/utypes.h>

#include <fstream>
#include <string>

#include "codeset.h"
#include "testSupport.h"

inline void UseIcu(const testsupport::ScratchDir &dir)
{
   std::ofstream(dir / (U_ICUDATA_NAME ".dat")) << "x";
   CodeSet_Init(dir.Path().c_str());
}

inline void UseBuiltin()
{
   CodeSet_Init("/nonexistent/icu-data-directory");
}

#endif
