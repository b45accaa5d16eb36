#pragma once

#include "platform/korv/api_request.h"
#include "platform/korv/api_response.h"

#include "korv/system/share_change.h"

// The methods of "KORV.Core.Share" that change or remove shares; its table is in share_api.cpp.
namespace korv {

// The service's code for an outcome, 0 for success.
int ErrorOf(ChangeEnd end);

void SetShare(KORV::APIRequest* request, KORV::APIResponse* response);
void DeleteShares(KORV::APIRequest* request, KORV::APIResponse* response);

}  // namespace korv
