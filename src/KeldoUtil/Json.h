#pragma once
// Every use of RapidJSON goes through this header so that its own type checks
// ("IsBool()", "IsObject()" ...) stop the process in every build type, the way
// the library's other configuration checks do.
#include "KeldoUtil/Assert.h"

#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x) KELDO_ASSERT(x)
#endif
#ifndef RAPIDJSON_HAS_STDSTRING
#define RAPIDJSON_HAS_STDSTRING 1
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
