// The request that shows and replaces the rules of drivers and containers: "NoProcessing|tierrules|OP|REST".
#pragma once

// Answers "=|TEXT" (begin), "+|TEXT" (add), "!|CRC" (check and put in force) or "?|N" (page N of the text in
// force) into `pagebuf`. TEXT is all up to the request's end, bars included. Worker.
void QorAnswerTierRules(char *value);
