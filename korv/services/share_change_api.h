#pragma once

#include <string>

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

#include "korv/system/share_change.h"

// The methods of "KORV.Core.Share" that change or remove shares; its table is in share_api.cpp.
namespace korv {

// The id that a decimal text names; 0, which no job has, for any other text.
long long ParseJobId(const std::string& text);

// The service's code for an outcome, 0 for success.
int ErrorOf(ChangeEnd end);

void SetShare(KORV::APIRequest* request, KORV::APIResponse* response);
// Also answers how far the job is that moves a share's data.
void GetMoveStatus(KORV::APIRequest* request, KORV::APIResponse* response);
void DeleteShares(KORV::APIRequest* request, KORV::APIResponse* response);

}  // namespace korv
