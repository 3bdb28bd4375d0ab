/// @file LookVerbs.h
/// One function for each verb that only looks; each is in the file of its name.

#ifndef FATIMG_LOOKVERBS_H
#define FATIMG_LOOKVERBS_H

#include "Verbs.h"

namespace fatimg {

void AddCat(Grammar& grammar);
void AddCheck(Grammar& grammar);
void AddDf(Grammar& grammar);
void AddDu(Grammar& grammar);
void AddFind(Grammar& grammar);
void AddInfo(Grammar& grammar);
void AddLs(Grammar& grammar);
void AddMap(Grammar& grammar);
void AddStat(Grammar& grammar);
void AddTree(Grammar& grammar);
void AddVerify(Grammar& grammar);

}  // namespace fatimg

#endif  // FATIMG_LOOKVERBS_H
