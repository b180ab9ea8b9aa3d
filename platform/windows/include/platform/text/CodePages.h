// See Types.h: conversion by code page.
#pragma once

#include "platform/base/Types.h"
