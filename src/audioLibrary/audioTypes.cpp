// audioTypes
