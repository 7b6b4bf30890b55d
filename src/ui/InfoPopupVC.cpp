#include "ui/InfoPopupVC.h"

#include "foundation/EventBus.h"
#include "foundation/EventNames.h"

void InfoPopupVC::clickClose()
{
    EventBus::defaultCenter().post(Events::NT_HIDE_INFO_POPUP);
}
