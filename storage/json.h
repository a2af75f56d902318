// The JSON objects that the server answers with.
#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>

// Size, blocks, mode, links and times of a file.
std::string attributeObject(const struct stat& st);

// The volume's statistics, in units large enough for the counts to fit 31 bits.
std::string statisticsObject(const struct statvfs& volume);

// The outcome of make-directory and rename.
std::string statusEnvelope(int code);

// Adds an element to the text of a listing.
void appendElement(std::string& listing, const char* name, const struct stat& st);

// Adds `text` in quotation marks.
void appendString(std::string& json, const char* text);
