// Foundation stand-in, runtime part: the integer types of every interface.
#pragma once

typedef long NSInteger;
typedef unsigned long NSUInteger;
