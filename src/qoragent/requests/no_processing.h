// Requests that change a setting of the agent or ask it for a small service: "NoProcessing|key|value".
#pragma once

// Answers the request whose key and value are in `pars` (which may be null) into `pagebuf`. Worker.
void QorAnswerNoProcessing();
