#include <qmlogger/qmlogger.h>
