// What a first start in an empty directory adds to the store: the system administrator
// with a random password, kept in "admin-password.txt" (mode 0600) for the person who
// installed the system, and one domain so that accounts can be made at once.
#pragma once

#include "core/string.h"

extern const String first_admin_name;
extern const String first_domain_name;
extern const String admin_password_file;

// Creates the administrator and the domain if the tables have none; gives the password
// (empty if the administrator was already there). The tables must be loaded.
String create_first_start_data();
