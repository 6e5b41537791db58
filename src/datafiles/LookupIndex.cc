// placeholder until this part is written
