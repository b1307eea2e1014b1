// Each public header on its own, first in its group, so that a header that
// forgets an include of its own fails to compile here.
#include <keldaurl.h>
#include <filegroupdata.h>
#include <filequery.h>
#include <keldaerror.h>
#include <filetype.h>
#include <keldaclientglobal.h>
#include <clienttreemodel.h>
#include <fileselectdialog.h>
#include <querydialog.h>
#include <keldasaveasdlg.h>
#include <keldafile.h>
